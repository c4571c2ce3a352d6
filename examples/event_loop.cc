// event_loop [DAEMON]: messages within an epoll loop of the program's own, beside the lines of its
// standard input. Ends with the input.

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <pelmo/pelmo.hpp>

using namespace std::chrono_literals;

static void add(int loop, int descriptor) {
    epoll_event event = {.events = EPOLLIN, .data = {.fd = descriptor}};
    if (epoll_ctl(loop, EPOLL_CTL_ADD, descriptor, &event) != 0) std::perror("epoll_ctl");
}

int main(int count, char** words) try {
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    const int posted = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    add(loop, posted);
    add(loop, STDIN_FILENO);

    // Runs on the thread that posts: it only wakes the loop.
    auto queue = pelmo::Queue::make().value();
    queue.hook([posted] { (void)eventfd_write(posted, 1); }).value();
    const auto listener =
        queue
            .listen(bus, "LINES",
                    [](pelmo::MessageView message) {
                        std::printf("heard: %s\n",
                                    message.get<std::string>("text").value_or("").c_str());
                        std::fflush(stdout);
                    })
            .value();
    for (bool open = true; open;) {
        epoll_event ready = {};
        if (epoll_wait(loop, &ready, 1, -1) != 1) continue;
        if (ready.data.fd == posted) {
            // The counter first: what is posted from here on raises it again.
            eventfd_t posts = 0;
            (void)eventfd_read(posted, &posts);
            while (queue.dispatch(0s).value()) {
            }
        } else {
            char text[256];
            const ssize_t length = read(STDIN_FILENO, text, sizeof text);
            open = length > 0;
            const std::string_view line(text, open ? static_cast<size_t>(length) : 0);
            if (open)
                bus.send(pelmo::Message("LINES").add("text", line.substr(0, line.find('\n'))))
                    .value();
        }
    }
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "event_loop: %s\n", failure.what());
    return 1;
}
