// publisher [DAEMON [COUNT]]: sends so many prices, three if it isn't said.

#include <cstdio>
#include <cstdlib>
#include <pelmo/pelmo.hpp>

int main(int count, char** words) try {
    const pelmo::Library library;
    auto bus = pelmo::Transport::connect({.daemon = count > 1 ? words[1] : "7500"}).value();
    const int prices = count > 2 ? std::atoi(words[2]) : 3;
    pelmo::Message message;
    for (int i = 0; i < prices; ++i) {
        message.reset()
            .to("PRICES.GOLD")
            .add("price", 2050.5 + i)
            .add("unit", "oz")
            .add("time", std::chrono::system_clock::now());
        bus.send(message).value();
    }
    bus.close(std::chrono::seconds(5)).value();  // says whether all have left
    return 0;
} catch (const pelmo::Failure& failure) {
    std::fprintf(stderr, "publisher: %s\n", failure.what());
    return 1;
}
