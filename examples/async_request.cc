// async_request [DAEMON]: asks for the time without waiting for the answer, and does something else
// meanwhile.

#include <cstdio>
#include <pelmo/pelmo.hpp>

using namespace std::chrono_literals;

int main(int count, char** words) try {
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const auto queue = pelmo::Queue::make().value();
    std::stop_source stop;
    bool answered = false;
    const auto request = bus.request(queue, pelmo::Message("TIME.NOW").add("zone", "UTC"), 5s,
                                     [&](pelmo::Result<pelmo::MessageView> answer) {
                                         if (answer) std::printf("%s\n", answer->text().data());
                                         if (!answer)
                                             std::printf("no answer: %s\n", answer.error().text());
                                         answered = answer.has_value();
                                         stop.request_stop();
                                     })
                             .value();
    const auto tick = queue.every(250ms, [] { std::puts("waiting"); }).value();
    queue.run(stop.get_token()).value();
    return answered ? 0 : 1;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "async_request: %s\n", failure.what());
    return 1;
}
