// Random lives of a few reliable endpoints, each from a seed, and what must hold in them whatever
// happens:
//
// - A message that a send took arrives once, whole and in its order, or its sender or receiver is
//   notified of the loss. Only a sender that closes its own endpoint, or crashes, isn't.
// - A connection that is no longer used comes to its end, and nothing is left: no record, no
//   entry of a table, no deadline, no message half put together.
// - No packet goes beyond the window that its receiver announced.
// - Connections at rest are silent, and no two peers talk without end.
//
// A faultless life never waits for a timer; a flushing one loses nothing either, though one
// endpoint closes. In a tame one faults come in spells that end in time: every message arrives, and
// nothing is lost or arrives again. In a wild one peers crash, close and come back, links are cut
// for minutes, allocations fail, a host answers from another address.
//
// RELIABLE_SEEDS says how many lives; RELIABLE_SEED is one alone, with a line for each packet:
//
//     RELIABLE_SEED=4711 build/release/bin/transport_tests
//     --gtest_filter=ReliableLives.HoldAllPromises

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <tuple>

#include "lib/containers/hash.h"
#include "lib/msg/buffer.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/reliable_net.h"

namespace {

#if defined(PELMO_ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG)
constexpr uint64_t kSeeds = 1'000;
#else
constexpr uint64_t kSeeds = 5'000;
#endif
constexpr uint64_t kMostFaults = 10;  // are shown

constexpr double kSpellSeconds = 30;     // of faults at most, in a tame life
constexpr double kBetweenSpells = 70;    // see planSpells
constexpr double kQuietSeconds = 4000;   // until the last connection must have gone
constexpr double kSettleSeconds = 140;   // until all data has arrived or was given up
constexpr uint64_t kQuietPackets = 400;  // after that, for all hosts

struct SentMessage {
    uint32_t size;
    bool arrived = false;
    bool isReported = false;
};

// What one life of a host sent to another host.
struct Stream {
    std::vector<SentMessage> sent;
    std::map<uint32_t, size_t> next;        // by life of the receiver: the first not yet arrived
    std::map<uint32_t, bool> mayComeAgain;  // by the same: it has made the sender begin again
};

struct Sending {
    Stream* stream;
    size_t begin, end;
};

struct Action {
    double at;
    std::function<void()> run;
};

enum class Kind : uint8_t { kFaultless, kFlushing, kTame, kWild };

struct Model : NoCopy {
    ReliableNet net;
    SeededRandom& random = net.random;
    Kind kind = Kind::kWild;
    std::vector<Action> actions;
    std::vector<double> bursts;                                          // of sends: their times
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Stream> streams;  // from, its life, to
    std::map<uint64_t, Sending> waiting;                                 // by token of a sender
    std::map<std::pair<uint32_t, uint64_t>, uint64_t> edges;  // by host, its and the peer's id
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> reportedInbound;  // from, to: bytes
    uint64_t messages = 0;

    Model(uint64_t seed, FILE* trace) : net(seed) {
        net.trace = trace;
        plan();
        net.watch = {.sent = std::bind_front(&Model::packetSent, this),
                     .arrives = std::bind_front(&Model::packetArrives, this),
                     .loses = nullptr,
                     .message = std::bind_front(&Model::messageArrives, this),
                     .lost = std::bind_front(&Model::lossReported, this),
                     .senderGoesOn = std::bind_front(&Model::senderGoesOn, this),
                     .closed = std::bind_front(&Model::checkFlushed, this)};
        live();
    }

    // No host closes or crashes.
    bool isTame() const { return kind == Kind::kFaultless || kind == Kind::kTame; }

    NetHost& host(uint32_t index) { return *net.hosts[index]; }
    uint32_t drawHost() { return random.below(static_cast<uint32_t>(net.hosts.size())); }

    // Sends

    uint32_t drawSize() {
        const double share = random.unit();
        const uint32_t least = isTame() ? 8 : kNetNamedBytes;
        if (share < 0.1) return least;
        if (share < 0.6) return least + random.below(300);
        if (share < 0.8) {
            constexpr uint32_t kBounds[] = {1412, 1432, 1433, 1074, 716};
            return kBounds[random.below(5)] * (1 + random.below(3)) - 2 + random.below(5);
        }
        if (share < 0.997) return least + static_cast<uint32_t>(std::exp(random.between(0, 10.5)));
        return kMostNetMessageBytes - random.below(3000);
    }

    static uint32_t nameOf(uint32_t life, size_t number) {
        return life << 24 | static_cast<uint32_t>(number);
    }

    // Messages one after the other in a buffer.
    static void makeMessages(std::span<const SentMessage> batch,
                             uint32_t name,
                             std::vector<HeldMessage>* out) {
        uint32_t room = 0, offset = 0;
        for (const SentMessage& one : batch)
            room += one.size;
        Buffer* const buffer = bufferCreate(room);
        for (const SentMessage& one : batch) {
            netWriteMessage(buffer->data + offset, one.size, name++);
            pelmoMsg* message = nullptr;
            if (msgCreateOverBuffer(&message, buffer, offset) != kStatusSuccess) std::abort();
            out->emplace_back(message);
            offset += one.size;
        }
        bufferRelease(buffer);
    }

    Stream& streamOf(const NetHost& from, uint32_t life, const NetHost& to) {
        return streams[{from.index, life, to.index}];
    }

    void sendSome(uint32_t from, uint32_t to, bool isLong) {
        NetHost& sender = host(from);
        if (!sender.isUp) return;
        Stream& stream = streamOf(sender, sender.life, host(to));
        const size_t first = stream.sent.size();
        std::vector<SentMessage> batch(1 + random.below(random.chance(0.3) ? 8 : 1));
        for (SentMessage& one : batch)
            one.size = isLong ? kMostNetMessageBytes : drawSize();
        const size_t inABuffer = random.chance(0.3) ? batch.size() : 1;
        std::vector<HeldMessage> made;
        for (size_t i = 0; i < batch.size(); i += inABuffer)
            makeMessages({&batch[i], inABuffer}, nameOf(sender.life, first + i), &made);
        std::vector<pelmoMsg*> all;
        for (const HeldMessage& one : made)
            all.push_back(one.get());

        const uint64_t senders = net.senderTokens;
        const pelmoStatus status = netSend(net, from, host(to).alias, all, random.chance(0.2));
        const bool isDue = status == kStatusSuccess ||
                           (status == kStatusNoMemory && net.memory.failing > 0) ||
                           (status == kStatusInvalidTransport && sender.core.flushing);
        if (!isDue) netFault(net, "a send gives %d", status);
        if (status != kStatusSuccess) return;
        stream.sent.insert(stream.sent.end(), batch.begin(), batch.end());
        messages += batch.size();
        if (net.senderTokens != senders)
            waiting[net.senderTokens] = {&stream, first, stream.sent.size()};
    }

    // What watches

    void messageArrives(NetHost& to, const PeerAddress& from, pelmoMsg* message) {
        const NetHost* const sender = netFind(net, from);
        if (sender == nullptr) return netFault(net, "a message from no host");
        if (to.core.flushing) netFault(net, "a message for an endpoint that flushes");
        const bool isNamed = message->length >= kNetNamedBytes;
        const uint32_t life = isNamed ? netMessageName(message) >> 24 : 0;
        Stream& stream = streamOf(*sender, life, to);
        size_t& next = stream.next[to.life];
        const size_t number = isNamed ? netMessageName(message) & 0xffffff : next;
        if (number >= stream.sent.size() || stream.sent[number].size != message->length ||
            !netIsMessage(message, nameOf(life, number))) {
            return netFault(net, "message %zu of %u isn't what was sent", number, sender->index);
        }
        if (isTame() && number != next)
            return netFault(net, "message %zu of %u in place of %zu", number, sender->index, next);
        // To a host with two addresses there may be two connections, which know nothing of each
        // other.
        const bool hasTwoWays = sender->alias != sender->address;
        bool& mayComeAgain = stream.mayComeAgain[to.life];
        if (number < next && !mayComeAgain && !hasTwoWays)
            netFault(net, "message %zu of %u after %zu", number, sender->index, next - 1);
        if (number < next) mayComeAgain = false;
        next = number + 1;
        stream.sent[number].arrived = true;
    }

    void lossReported(NetHost& to, const LossReport& report) {
        const NetHost* const peer = netFind(net, report.peer);
        if (peer == nullptr) return netFault(net, "a loss with no host");
        if (isTame()) netFault(net, "host %u hears of a loss", to.index);
        if (report.inbound) {
            reportedInbound[{peer->index, to.index}] += report.bytes;
            return;
        }
        for (SentMessage& one : streamOf(to, to.life, *peer).sent)
            one.isReported = true;
    }

    void packetSent(NetHost& from, const PeerAddress& to, const Packet& packet) {
        const PacketHeader& header = packet.header;
        if ((header.flags & kFlagRst) != 0) {
            const NetHost* const peer = netFind(net, to);
            for (uint32_t life = 0; peer != nullptr && life <= peer->life; ++life)
                streamOf(*peer, life, from).mayComeAgain[from.life] = true;
            return;
        }
        if (header.window != kReceiveWindow) netFault(net, "a window of another size");
        if (packet.payload.empty()) return;
        const auto edge = edges.find({from.index, netIds(header.sourceId, header.destId)});
        if (edge == edges.end()) return netFault(net, "data for no host");
        if (header.seq >= edge->second) netFault(net, "data beyond the peer's window");
    }

    void packetArrives(NetHost& to, const PeerAddress&, const Packet& packet) {
        const PacketHeader& header = packet.header;
        if ((header.flags & kFlagRst) != 0) return;
        uint64_t& edge = edges[{to.index, netIds(header.destId, header.sourceId)}];
        edge = std::max(edge, header.ack + header.window);
    }

    // Where nothing is lost on the way, a flush brings everything to those who are there, but to
    // one who opens again at that very time.
    void checkFlushed(NetHost& closed) {
        if (kind != Kind::kFlushing) return;
        for (auto& [key, stream] : streams) {
            const auto [from, life, to] = key;
            if (from != closed.index || life + 1 != closed.life || !host(to).isUp) continue;
            for (const SentMessage& one : stream.sent) {
                if (one.arrived || (one.isReported && stream.mayComeAgain[host(to).life])) continue;
                netFault(net, "a message from %u to %u isn't flushed", from, to);
            }
        }
    }

    void senderGoesOn(NetHost&, const NetSender& sender, bool failed) {
        const auto found = waiting.find(sender.token);
        if (found == waiting.end()) return;
        const Sending& sending = found->second;
        for (size_t i = sending.begin; failed && i < sending.end; ++i)
            sending.stream->sent[i].isReported = true;
        waiting.erase(found);
    }

    // What happens, and when

    void at(double time, std::function<void()> run) { actions.push_back({time, std::move(run)}); }

    // When the connection of a first send at `opened` closes if nothing comes after `last`.
    static double idleEnd(double opened, double last) {
        return opened + 300 * (std::floor((last - opened) / 300) + 2);
    }

    // Bursts of sends, many of them while idle connections close.
    void planTraffic() {
        const auto hosts = static_cast<uint32_t>(net.hosts.size());
        double time = kNetBegin + random.between(0, 10);
        double opened = time;
        for (uint32_t count = 1 + random.below(6); count > 0; --count) {
            bursts.push_back(time);
            const double spread = std::pow(10, random.between(-4, 1));
            const uint32_t from = drawHost();
            const bool isFlood = random.chance(0.005);  // more than a send queue takes
            double offset = 0;
            const bool isLong = !isFlood && random.chance(0.2);
            for (uint32_t send = 1 + random.below(isLong ? 40 : 8); send > 0; --send) {
                const uint32_t sender = random.chance(0.7) ? from : drawHost();
                const uint32_t to = (sender + 1 + random.below(hosts - 1)) % hosts;
                at(time + offset, [=, this] { sendSome(sender, to, isFlood); });
                offset = random.between(0, spread);
            }
            const double steps[] = {random.between(0, 3), random.between(3, 120),
                                    random.between(250, 700)};
            if (random.chance(0.6)) {
                time += steps[random.below(3)];
                continue;
            }
            const double near = random.chance(0.5) ? 1.5 : 5 * net.link.delay;
            time = opened = idleEnd(opened, time) + random.between(-0.2, 1) * near;
        }
    }

    void drawLink() {
        NetLink& link = net.link;
        if (random.chance(0.8)) link.loss = std::pow(random.unit(), 2) * 0.5;
        if (random.chance(0.5)) link.twice = random.unit() * 0.3;
        if (random.chance(0.5)) link.jitter = link.delay * random.between(0, 3);
        if (random.chance(0.3)) link.late = random.unit() * 0.05;
        if (random.chance(0.3)) {
            link.isCut[random.below(2)][random.below(2)] = true;
            if (random.chance(0.5)) link.isCut[0][1] = link.isCut[1][0] = true;
        }
    }
    void mendLink() { net.link = {.delay = net.link.delay}; }

    // Faults come around bursts. A stall that begins within a spell of at most 30 seconds has two
    // resends in the 70 seconds after it, whenever it began, and is never given up: one may find
    // what the peer has left of a connection before, the next one opens.
    void planSpells() {
        double free = 0;
        for (const double burst : bursts) {
            const double begin = burst + random.between(-1, 1);
            if (begin < free || random.chance(0.2)) continue;
            double end = begin + kSpellSeconds * std::pow(random.unit(), 2);
            if (kind == Kind::kWild && random.chance(0.2)) end = begin + random.between(60, 250);
            free = end + kBetweenSpells;
            at(begin, [this] { drawLink(); });
            at(end, [this] { mendLink(); });
        }
    }

    double drawTime() {
        const double burst = bursts[random.below(static_cast<uint32_t>(bursts.size()))];
        return burst + std::pow(10, random.between(-3, 1));
    }
    void open(uint32_t index) {
        if (!host(index).isUp && !netOpen(net, index)) netFault(net, "no endpoint");
    }

    void planEnds() {
        const bool flushes = random.chance(0.5), crashes = random.chance(0.5);
        for (uint32_t count = 1 + random.below(3); count > 0; --count) {
            const uint32_t index = drawHost();
            const double time = drawTime();
            const double back =
                time + (random.chance(0.7) ? random.between(0, 1) : random.between(0, 200));
            const bool flush = random.chance(flushes ? 0.7 : 0);
            const bool crash = random.chance(crashes ? 0.6 : 0);
            at(time, [=, this] {
                if (!host(index).isUp || host(index).core.flushing) return;
                if (crash) return netCrash(net, index);
                netClose(net, index, flush);
            });
            if (!random.chance(0.2)) at(back, [=, this] { open(index); });
        }
    }

    // One endpoint closes, and another one may be in its place at once.
    void planFlush() {
        const uint32_t index = drawHost();
        const double time = drawTime();
        at(time, [=, this] { netClose(net, index, true); });
        if (random.chance(0.5)) at(time + random.between(0, 12), [=, this] { open(index); });
    }

    void plan() {
        constexpr Kind kKinds[] = {Kind::kFaultless, Kind::kFlushing, Kind::kTame, Kind::kTame,
                                   Kind::kWild,      Kind::kWild,     Kind::kWild};
        kind = kKinds[random.below(std::size(kKinds))];
        net.link.delay = std::pow(10, random.between(-4, -1));
        for (uint32_t hosts = random.chance(0.85) ? 2 : 3; hosts > 0; --hosts)
            open(netAddHost(net));
        if (kind == Kind::kWild && random.chance(0.15)) host(1).alias.address = htonl(0x0a000101);

        planTraffic();
        if (kind == Kind::kFlushing) planFlush();
        if (kind == Kind::kTame || kind == Kind::kWild) planSpells();
        if (kind != Kind::kWild) return;
        if (random.chance(0.7)) planEnds();
        net.memory = {0, allocationsArm, allocationsHeal};
        if (random.chance(0.2)) net.memory.failing = std::pow(10, random.between(-3, -1));
    }

    // How it must end

    void checkStreams() {
        for (auto& [key, stream] : streams) {
            const auto [from, life, to] = key;
            if (host(from).life != life) continue;  // closed or crashed
            uint64_t missing = 0;
            for (const SentMessage& one : stream.sent) {
                if (!one.arrived && !one.isReported) missing += one.size;
            }
            if (missing <= reportedInbound[{from, to}]) continue;
            netFault(net, "%ju bytes from %u to %u are missing", uintmax_t{missing}, from, to);
        }
    }

    void checkHosts() {
        for (const std::unique_ptr<NetHost>& each : net.hosts) {
            const EndpointCore& core = each->core;
            if (each->isUp &&
                (core.byPeer->count + core.byId->count + core.connections + core.halfOpen != 0 ||
                 core.share.bytes != 0 || each->waiters != 0 ||
                 endpointNextDeadline(&core) < kNever)) {
                netFault(net, "host %u keeps %u peers, %u ids, %u connections, %u half open",
                         each->index, core.byPeer->count, core.byId->count, core.connections,
                         core.halfOpen);
            }
        }
    }

    void live() {
        std::ranges::stable_sort(actions, {}, &Action::at);
        for (const Action& action : actions) {
            netRun(net, action.at);
            if (!net.fault.empty()) return;
            action.run();
        }
        net.memory.failing = 0;
        mendLink();
        netRun(net, net.now + kSettleSeconds);
        const uint64_t packets = net.packets;
        const double until = net.now + kQuietSeconds;
        while (!netIsQuiet(net) && net.now < until && net.fault.empty())
            netRun(net, std::min(until, netNext(net)));
        if (net.packets - packets > kQuietPackets) netFault(net, "connections at rest are loud");
        if (!netIsQuiet(net)) netFault(net, "connections stay for good");
        if (kind == Kind::kFaultless && net.stalls != 0) netFault(net, "a stall for no reason");
        checkHosts();
        checkStreams();
    }
};

TEST(ReliableLives, HoldAllPromises) {
    const char* const one = std::getenv("RELIABLE_SEED");
    const char* const many = std::getenv("RELIABLE_SEEDS");
    const uint64_t begin = one != nullptr ? std::strtoull(one, nullptr, 0) : 1;
    const uint64_t wanted = many != nullptr ? std::strtoull(many, nullptr, 0) : kSeeds;
    const uint64_t count = one != nullptr ? 1 : wanted;
    uint64_t messages = 0, packets = 0, repeats = 0, faults = 0;
    for (uint64_t seed = begin; seed < begin + count && faults < kMostFaults; ++seed) {
        const Model model(seed, one != nullptr ? stdout : nullptr);
        messages += model.messages;
        packets += model.net.packets;
        repeats += model.net.repeats;
        if (model.net.fault.empty()) continue;
        ++faults;
        ADD_FAILURE() << model.net.fault << "\nRELIABLE_SEED=" << seed
                      << " build/release/bin/transport_tests"
                         " --gtest_filter=ReliableLives.HoldAllPromises";
    }
    std::printf("%ju messages, %ju packets, %ju of them repeats\n", uintmax_t{messages},
                uintmax_t{packets}, uintmax_t{repeats});
    EXPECT_TRUE(noMemoryIsLost());
}

}  // namespace
