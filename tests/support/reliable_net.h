// A network of reliable endpoints in one thread: their cores, the datagrams under way between them,
// and a clock that goes from one to the next, so that an hour takes milliseconds. What becomes of a
// datagram is drawn from the seed, and a run with the same seed is the same run.
//
//     ReliableNet net(seed);
//     net.link = {.delay = 0.005, .loss = 0.1};
//     const uint32_t a = netAddHost(net), b = netAddHost(net);
//     netOpen(net, a), netOpen(net, b);
//     netSend(net, a, net.hosts[b]->address, messages, false);
//     netRun(net, net.now + 10);
//
// What the layer may never do to its owner is checked at each call: a deadline that stays in the
// past, a sender that waits with room before it, a datagram that is too long. `fault` has the
// first such fault, which ends the run.
//
// Threads: one.

#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "lib/msg/message_internal.h"
#include "lib/transport/reliable/endpoint_core.h"
#include "tests/support/test.h"

inline constexpr double kNetBegin = 1.7e9;  // seconds since 1970
inline constexpr uint32_t kMostNetHosts = 4;

struct SeededRandom {
    std::mt19937_64 engine;

    double unit() { return static_cast<double>(engine() >> 11) * 0x1p-53; }
    bool chance(double share) { return unit() < share; }
    double between(double low, double high) { return low + unit() * (high - low); }
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(engine() % bound); }
};

struct NetLink {
    double delay = 0.001;  // seconds one way
    double jitter = 0;     // mean of what is added; packets overtake each other
    double loss = 0;       // shares of packets
    double twice = 0;
    double late = 0;                                // of packets that turn up seconds later
    bool isCut[kMostNetHosts][kMostNetHosts] = {};  // from, to
};

struct NetFlight {
    PeerAddress from, to;
    std::vector<uint8_t> bytes;
};

struct ReliableNet;

// A sender that waits until its peer has room.
struct NetSender {
    ReliableConnection* connection;
    PeerAddress peer;
    uint64_t token;
};

struct NetHost {
    ReliableNet* net;
    uint32_t index;
    PeerAddress address;
    PeerAddress alias;  // datagrams to it arrive here too; what is sent comes from `address`
    EndpointCore core;
    bool isUp = false;
    uint32_t life = 0;  // endpoints that stood here before
    uint32_t ids = 0;   // of connections, drawn in all lives
    double closeBegin = 0;
    double lastArrival = 0;
    std::vector<NetSender> senders;
    uint32_t waiters = 0;                       // records of connectionWaiter
    std::map<uint64_t, uint64_t> acknowledged;  // up to which number, by the ids of both ends
};

// Seams for what watches; empty ones are skipped.
struct NetWatch {
    std::function<void(NetHost&, const PeerAddress& to, const Packet&)> sent;
    std::function<void(NetHost&, const PeerAddress& from, const Packet&)> arrives;
    std::function<bool(const NetHost&, const Packet&)> loses;  // over and above the link
    std::function<void(NetHost&, const PeerAddress& from, pelmoMsg*)> message;
    std::function<void(NetHost&, const LossReport&)> lost;
    std::function<void(NetHost&, const NetSender&, bool failed)> senderGoesOn;
    std::function<void(NetHost&)> closed;
};

// Makes allocations of the core fail; null functions: none ever does. The programs that can do it
// are linked with tests/support/fail_alloc.
struct NetMemory {
    double failing = 0;  // share of calls
    bool (*arm)(size_t after, bool forGood) = nullptr;
    void (*heal)() = nullptr;
};

struct ReliableNet : NoCopy {
    explicit ReliableNet(uint64_t seed) : random{std::mt19937_64(seed)} {}
    ~ReliableNet();

    double now = kNetBegin;
    SeededRandom random;
    NetLink link;
    NetMemory memory;
    NetWatch watch;
    FILE* trace = nullptr;
    std::vector<std::unique_ptr<NetHost>> hosts;
    std::multimap<double, NetFlight> flights;  // by when they arrive
    uint64_t packets = 0;
    uint64_t mostPackets = 1'000'000;  // more are a loop without end
    bool hasForgers = false;  // acknowledgements that come may be forged: none of them counts
    uint64_t repeats = 0;
    uint64_t stalls = 0;  // of repeats with data, those that a timer brought about
    uint64_t senderTokens = 0;
    std::string fault;
};

// The ids of both ends of a connection.
inline uint64_t netIds(uint32_t own, uint32_t peer) {
    return uint64_t{own} << 32 | peer;
}

void netFault(ReliableNet& net, const char* format, ...) __attribute__((format(printf, 2, 3)));

uint32_t netAddHost(ReliableNet& net);
[[nodiscard]] NetHost* netFind(ReliableNet& net, const PeerAddress& address);

bool netOpen(ReliableNet& net, uint32_t host);
void netCrash(ReliableNet& net, uint32_t host);  // without a word to its peers
void netClose(ReliableNet& net, uint32_t host, bool flush);

// The messages are borrowed. A sender that has to wait is the last of NetHost::senders then.
pelmoStatus netSend(ReliableNet& net,
                    uint32_t host,
                    const PeerAddress& to,
                    std::span<pelmoMsg* const> messages,
                    bool delaySmall);

// A datagram that no core has sent, which arrives next.
void netInject(ReliableNet& net,
               const PeerAddress& from,
               const PeerAddress& to,
               std::span<const uint8_t> bytes);

[[nodiscard]] double netNext(const ReliableNet& net);  // of datagrams and deadlines; kNever
void netRun(ReliableNet& net, double until);           // all up to there, the time afterwards

[[nodiscard]] bool netIsQuiet(const ReliableNet& net);  // no connection is left

// Messages that tell which one they are, from kNetNamedBytes on: the name is in bytes 8 to 11. What
// follows is cut from one random block, at a place that the name gives.
inline constexpr uint32_t kNetNamedBytes = 12;
inline constexpr uint32_t kMostNetMessageBytes = 1 << 20;
void netWriteMessage(uint8_t* at, uint32_t size, uint32_t name);
[[nodiscard]] HeldMessage netMessage(uint32_t size, uint32_t name);
[[nodiscard]] uint32_t netMessageName(const pelmoMsg* message);
[[nodiscard]] bool netIsMessage(const pelmoMsg* message, uint32_t name);
