// circuit [DAEMON]: two ends of a virtual circuit, here in one process; elsewhere the connect
// subject would be sent to the other one.

#include <cstdio>
#include <pelmo/pelmo.hpp>

using namespace std::chrono_literals;

int main(int count, char** words) try {
    const pelmo::Library library;
    const auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const auto queue = pelmo::Queue::make().value();
    const auto server = pelmo::Circuit::accept(bus).value();
    const auto client = pelmo::Circuit::connect(bus, server.connectSubject()).value();
    server.wait(10s).value();
    client.wait(10s).value();

    std::stop_source stop;
    const auto numbers = queue
                             .listen(server, "NUMBERS",
                                     [&](pelmo::MessageView message) {
                                         const auto number = message.get<int>("number").value();
                                         std::printf("%d\n", number);
                                         if (number == 3) stop.request_stop();
                                     })
                             .value();
    for (const int number : {1, 2, 3})
        client.send(pelmo::Message("NUMBERS").add("number", number)).value();
    queue.run(stop.get_token()).value();
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "circuit: %s\n", failure.what());
    return 1;
}
