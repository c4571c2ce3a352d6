// request_server [DAEMON]: answers requests for the time, in the zone that they ask for, until one
// asks it to end.

#include <cstdio>
#include <pelmo/pelmo.hpp>

int main(int count, char** words) try {
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const auto queue = pelmo::Queue::make().value();
    std::stop_source stop;
    const auto time =
        queue
            .listen(bus, "TIME.NOW",
                    [&](pelmo::MessageView request) {
                        const auto zone = request.get<std::string>("zone").value_or("UTC");
                        const pelmo::Time now = std::chrono::system_clock::now();
                        const auto sent =
                            bus.reply(request, pelmo::Message().add("time", now).add("zone", zone));
                        if (!sent)
                            std::fprintf(stderr, "request_server: %s\n", sent.error().text());
                    })
            .value();
    const auto end = queue.listen(bus, "TIME.END", [&] { stop.request_stop(); }).value();
    std::puts("serving");
    std::fflush(stdout);
    queue.run(stop.get_token()).value();
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "request_server: %s\n", failure.what());
    return 1;
}
