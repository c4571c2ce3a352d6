// What a reliable connection carries over a simulated link that loses packets, in the link's own
// time, beside what the window allows: 32 packets a round trip. The run is the same on any machine.
//
//     reliable_sim [PACKETS]

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tests/support/reliable_net.h"

namespace {

constexpr double kRoundTripSeconds = 0.010;
constexpr double kWarmUpSeconds = 0.2;  // slow start
constexpr double kLeastOfMost = 0.98;   // without loss; less is a failure
constexpr uint32_t kBacklog = 100;      // packets that always wait

struct Run {
    double packetsPerSecond;
    double longestGap;  // seconds between two packets that arrive in order
    double repeats;     // share of the packets with data
};

Run run(double loss, uint32_t packets) {
    ReliableNet net(1);
    net.mostPackets = UINT64_MAX;
    net.link.delay = kRoundTripSeconds / 2;
    net.link.loss = loss;
    for (uint32_t host = 0; host < 2; ++host) {
        netAddHost(net);
        if (!netOpen(net, host)) std::exit(1);
    }
    uint32_t sent = 0, arrived = 0, counted = 0;
    double last = 0;
    Run result = {};
    net.watch.message = [&](NetHost&, const PeerAddress&, pelmoMsg*) {
        ++arrived;
        if (net.now < kNetBegin + kWarmUpSeconds) return;
        if (counted++ > 0) result.longestGap = std::max(result.longestGap, net.now - last);
        last = net.now;
    };
    net.watch.lost = [&](NetHost&, const LossReport&) { netFault(net, "the peer is given up"); };
    while (arrived < packets && net.fault.empty()) {
        for (; sent < packets && sent < arrived + kBacklog; ++sent) {
            const HeldMessage message = netMessage(kMostBlockBytes, sent);
            pelmoMsg* const one = message.get();
            if (netSend(net, 0, net.hosts[1]->address, {&one, 1}, false) != 0) std::exit(1);
        }
        netRun(net, net.now + kRoundTripSeconds / 10);
    }
    if (!net.fault.empty()) {
        std::fprintf(stderr, "%s\n", net.fault.c_str());
        std::exit(1);
    }
    result.packetsPerSecond = counted / (last - kNetBegin - kWarmUpSeconds);
    result.repeats = static_cast<double>(net.repeats) / static_cast<double>(sent + net.repeats);
    return result;
}

}  // namespace

int main(int count, char** arguments) {
    const auto packets =
        static_cast<uint32_t>(count > 1 ? std::strtoul(arguments[1], nullptr, 10) : 50'000);
    const double most = kReceiveWindow / kRoundTripSeconds;
    std::printf("%6s %12s %8s %8s %12s\n", "loss", "packets/s", "of most", "repeats",
                "longest gap");
    bool isGood = true;
    for (const double loss : {0.0, 0.001, 0.01, 0.02, 0.05, 0.1}) {
        const Run one = run(loss, packets);
        if (loss == 0) isGood = one.packetsPerSecond >= kLeastOfMost * most;
        std::printf("%5.1f%% %12.0f %8.3f %7.1f%% %10.3f s\n", 100 * loss, one.packetsPerSecond,
                    one.packetsPerSecond / most, 100 * one.repeats, one.longestGap);
    }
    return isGood ? 0 : 1;
}
