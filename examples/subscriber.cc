// subscriber [DAEMON [SUBJECT]]: prints each message until Ctrl-C or SIGTERM.

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <pelmo/pelmo.hpp>

// The signals as a descriptor, blocked before the library starts its threads.
static int signals() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}

int main(int count, char** words) try {
    const int ends = signals();
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const auto queue = pelmo::Queue::make().value();
    std::stop_source stop;
    const auto onEnd = queue.watch(ends, kIoRead, [&] { stop.request_stop(); }).value();
    const auto listener = queue
                              .listen(bus, count > 2 ? words[2] : "PRICES.>",
                                      [](pelmo::MessageView message) {
                                          std::printf("%s\n", message.text().data());
                                          std::fflush(stdout);
                                      })
                              .value();
    std::puts("listening");
    std::fflush(stdout);
    queue.run(stop.get_token()).value();
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "subscriber: %s\n", failure.what());
    return 1;
}
