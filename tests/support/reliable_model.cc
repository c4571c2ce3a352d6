#include "tests/support/reliable_model.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "lib/containers/hash.h"
#include "lib/msg/buffer.h"

namespace {

constexpr double kSpellSeconds = 30;     // of faults at most, in a tame life
constexpr double kBetweenSpells = 70;    // see planSpells
constexpr double kQuietSeconds = 4000;   // until the last connection must have gone
constexpr double kSettleSeconds = 140;   // until all data has arrived or was given up
constexpr uint64_t kQuietPackets = 400;  // after that, for all hosts

struct SentMessage {
    uint32_t size;
    bool arrived;
    bool isReported;
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

struct Model {
    explicit Model(uint64_t seed) : net(seed) {}

    ReliableNet net;
    Kind kind = Kind::kWild;
    std::vector<Action> actions;
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Stream> streams;  // from, its life, to
    std::map<uint64_t, Sending> waiting;                                 // by token of a sender
    std::map<std::pair<uint32_t, uint64_t>, uint64_t> edges;  // by host, its and the peer's id
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> reportedInbound;  // from, to: bytes
    std::map<std::pair<uint32_t, uint32_t>, PeerAddress> ways;  // from, to: the address used
    uint64_t messages = 0;

    // No host closes or crashes.
    bool isTame() const { return kind == Kind::kFaultless || kind == Kind::kTame; }
};

uint32_t drawSize(Model& model) {
    SeededRandom& random = model.net.random;
    const double kind = random.unit();
    const uint32_t least = model.isTame() ? 8 : kNetNamedBytes;
    if (kind < 0.1) return least;
    if (kind < 0.6) return least + random.below(300);
    if (kind < 0.8) {
        constexpr uint32_t kBounds[] = {1412, 1432, 1433, 1074, 716};
        return kBounds[random.below(5)] * (1 + random.below(3)) - 2 + random.below(5);
    }
    if (kind < 0.997) return least + static_cast<uint32_t>(std::exp(random.between(0, 10.5)));
    return kMostNetMessageBytes - random.below(3000);
}

uint32_t nameOf(uint32_t life, size_t number) {
    return life << 24 | static_cast<uint32_t>(number);
}

// Messages in buffers of their own, or one after the other in one.
std::vector<HeldMessage> makeMessages(std::span<const SentMessage> batch,
                                      size_t first,
                                      uint32_t life,
                                      bool together) {
    std::vector<HeldMessage> made;
    Buffer* buffer = nullptr;
    uint32_t offset = 0;
    uint32_t room = 0;
    for (const SentMessage& one : batch)
        room += one.size;
    for (size_t i = 0; i < batch.size(); ++i) {
        if (buffer == nullptr) buffer = bufferCreate(together ? room : batch[i].size);
        netWriteMessage(buffer->data + offset, batch[i].size, nameOf(life, first + i));
        pelmoMsg* message = nullptr;
        if (msgCreateOverBuffer(&message, buffer, offset) != kStatusSuccess) std::abort();
        made.emplace_back(message);
        offset += batch[i].size;
        if (together) continue;
        bufferRelease(buffer);
        buffer = nullptr;
        offset = 0;
    }
    bufferRelease(buffer);
    return made;
}

Stream& streamOf(Model& model, const NetHost& from, uint32_t life, const NetHost& to) {
    return model.streams[{from.index, life, to.index}];
}

void sendSome(Model& model, uint32_t from, uint32_t to, bool isLong) {
    ReliableNet& net = model.net;
    NetHost& host = *net.hosts[from];
    if (!host.isUp) return;
    Stream& stream = streamOf(model, host, host.life, *net.hosts[to]);
    const size_t first = stream.sent.size();
    std::vector<SentMessage> batch(1 + net.random.below(net.random.chance(0.3) ? 8 : 1));
    for (SentMessage& one : batch)
        one = {isLong ? kMostNetMessageBytes : drawSize(model), false, false};
    const std::vector<HeldMessage> made =
        makeMessages(batch, first, host.life, net.random.chance(0.3));
    std::vector<pelmoMsg*> messages;
    for (const HeldMessage& one : made)
        messages.push_back(one.get());

    const uint64_t senders = net.senderTokens;
    const pelmoStatus status =
        netSend(net, from, model.ways.at({from, to}), messages, net.random.chance(0.2));
    const bool isDue = status == kStatusSuccess ||
                       (status == kStatusNoMemory && net.memory.failing > 0) ||
                       (status == kStatusInvalidTransport && host.core.flushing);
    if (!isDue) netFault(net, "a send gives %d", status);
    if (status != kStatusSuccess) return;
    stream.sent.insert(stream.sent.end(), batch.begin(), batch.end());
    model.messages += batch.size();
    if (net.senderTokens != senders) {
        model.waiting[net.senderTokens] = {&stream, first, stream.sent.size()};
    }
}

// What watches.

void messageArrives(Model& model, NetHost& host, const PeerAddress& from, pelmoMsg* message) {
    ReliableNet& net = model.net;
    const NetHost* const sender = netFind(net, from);
    if (sender == nullptr) return netFault(net, "a message from no host");
    if (host.core.flushing) netFault(net, "a message for an endpoint that flushes");
    const std::span<const uint8_t> bytes(msgImage(message), message->length);
    const bool isNamed = bytes.size() >= kNetNamedBytes;
    const uint32_t life = isNamed ? netMessageName(message) >> 24 : 0;
    Stream& stream = streamOf(model, *sender, life, host);
    size_t& next = stream.next[host.life];
    const size_t number = isNamed ? netMessageName(message) & 0xffffff : next;
    if (number >= stream.sent.size() || stream.sent[number].size != bytes.size() ||
        !netIsMessage(message, nameOf(life, number))) {
        return netFault(net, "message %zu of %u isn't what was sent", number, sender->index);
    }
    if (model.isTame() && number != next) {
        return netFault(net, "message %zu of %u in place of %zu", number, sender->index, next);
    }
    // To a host with two addresses there may be two connections, which know nothing of each other.
    const bool hasTwoWays = sender->alias != sender->address;
    bool& mayComeAgain = stream.mayComeAgain[host.life];
    if (number < next && !mayComeAgain && !hasTwoWays) {
        netFault(net, "message %zu of %u after %zu", number, sender->index, next - 1);
    }
    if (number < next) mayComeAgain = false;
    next = number + 1;
    stream.sent[number].arrived = true;
}

void isTold(Model& model, NetHost& host, const LossReport& report) {
    ReliableNet& net = model.net;
    const NetHost* const peer = netFind(net, report.peer);
    if (peer == nullptr) return netFault(net, "a loss with no host");
    if (model.isTame()) netFault(net, "host %u hears of a loss", host.index);
    if (report.inbound) {
        model.reportedInbound[{peer->index, host.index}] += report.bytes;
        return;
    }
    for (SentMessage& one : streamOf(model, host, host.life, *peer).sent)
        one.isReported = true;
}

uint64_t idsOf(uint32_t own, uint32_t peers) {
    return uint64_t{own} << 32 | peers;
}

void packetSent(Model& model, NetHost& host, const PeerAddress& to, const Packet& packet) {
    const PacketHeader& header = packet.header;
    if ((header.flags & kFlagRst) != 0) {
        const NetHost* const peer = netFind(model.net, to);
        if (peer == nullptr) return;
        for (uint32_t life = 0; life <= peer->life; ++life)
            streamOf(model, *peer, life, host).mayComeAgain[host.life] = true;
        return;
    }
    if (header.window != kReceiveWindow) netFault(model.net, "a window of another size");
    if (packet.payload.empty()) return;
    const auto edge = model.edges.find({host.index, idsOf(header.sourceId, header.destId)});
    if (edge == model.edges.end()) return netFault(model.net, "data for no host");
    if (header.seq >= edge->second) netFault(model.net, "data beyond the peer's window");
}

void packetArrives(Model& model, NetHost& host, const Packet& packet) {
    const PacketHeader& header = packet.header;
    if ((header.flags & kFlagRst) != 0) return;
    uint64_t& edge = model.edges[{host.index, idsOf(header.destId, header.sourceId)}];
    edge = std::max(edge, header.ack + header.window);
}

// Where nothing is lost on the way, a flush brings everything to those who are there, but to one
// who opens again at that very time.
void checkFlushed(Model& model, const NetHost& host) {
    for (auto& [key, stream] : model.streams) {
        const auto [from, life, to] = key;
        const NetHost& peer = *model.net.hosts[to];
        if (from != host.index || life + 1 != host.life || !peer.isUp) continue;
        for (size_t i = 0; i < stream.sent.size(); ++i) {
            const bool isKnown = stream.sent[i].isReported && stream.mayComeAgain[peer.life];
            if (stream.sent[i].arrived || isKnown) continue;
            netFault(model.net, "message %zu from %u to %u isn't flushed", i, from, to);
            break;
        }
    }
}

void watch(Model& model) {
    NetWatch& seams = model.net.watch;
    seams.sent = [&](NetHost& host, const PeerAddress& to, const Packet& packet) {
        packetSent(model, host, to, packet);
    };
    seams.arrives = [&](NetHost& host, const PeerAddress&, const Packet& packet) {
        packetArrives(model, host, packet);
    };
    seams.message = [&](NetHost& host, const PeerAddress& from, pelmoMsg* message) {
        messageArrives(model, host, from, message);
    };
    seams.lost = [&](NetHost& host, const LossReport& report) { isTold(model, host, report); };
    seams.closed = [&](NetHost& host) {
        if (model.kind == Kind::kFlushing) checkFlushed(model, host);
    };
    seams.senderGoesOn = [&](NetHost&, const NetSender& sender, bool failed) {
        const auto found = model.waiting.find(sender.token);
        if (found == model.waiting.end()) return;
        const Sending& sending = found->second;
        for (size_t i = sending.begin; failed && i < sending.end; ++i)
            sending.stream->sent[i].isReported = true;
        model.waiting.erase(found);
    };
}

// What happens, and when.

void at(Model& model, double time, std::function<void()> run) {
    model.actions.push_back({time, std::move(run)});
}

// When the connection of a first send at `opened` closes if nothing comes after `last`.
double idleEnd(double opened, double last) {
    return opened + 300 * (std::floor((last - opened) / 300) + 2);
}

// Bursts of sends, many of them while idle connections close.
std::vector<double> planTraffic(Model& model) {
    SeededRandom& random = model.net.random;
    const auto hosts = static_cast<uint32_t>(model.net.hosts.size());
    double time = kNetBegin + random.between(0, 10);
    double opened = time;
    std::vector<double> bursts;
    for (uint32_t count = 1 + random.below(6); count > 0; --count) {
        bursts.push_back(time);
        const double spread = std::pow(10, random.between(-4, 1));
        const uint32_t from = random.below(hosts);
        const bool isFlood = random.chance(0.005);  // more than a send queue takes
        double offset = 0;
        const bool isLong = !isFlood && random.chance(0.2);
        for (uint32_t send = 1 + random.below(isLong ? 40 : 8); send > 0; --send) {
            const uint32_t sender = random.chance(0.7) ? from : random.below(hosts);
            const uint32_t to = (sender + 1 + random.below(hosts - 1)) % hosts;
            at(model, time + offset,
               [&model, sender, to, isFlood] { sendSome(model, sender, to, isFlood); });
            offset = random.between(0, spread);
        }
        const double steps[] = {random.between(0, 3), random.between(3, 120),
                                random.between(250, 700)};
        if (random.chance(0.6)) {
            time += steps[random.below(3)];
            continue;
        }
        const double near = random.chance(0.5) ? 1.5 : 5 * model.net.link.delay;
        time = opened = idleEnd(opened, time) + random.between(-0.2, 1) * near;
    }
    return bursts;
}

void drawLink(Model& model) {
    SeededRandom& random = model.net.random;
    NetLink& link = model.net.link;
    if (random.chance(0.8)) link.loss = std::pow(random.unit(), 2) * 0.5;
    if (random.chance(0.5)) link.twice = random.unit() * 0.3;
    if (random.chance(0.5)) link.jitter = link.delay * random.between(0, 3);
    if (random.chance(0.3)) link.late = random.unit() * 0.05;
    if (random.chance(0.3)) {
        link.isCut[random.below(2)][random.below(2)] = true;
        if (random.chance(0.5)) link.isCut[0][1] = link.isCut[1][0] = true;
    }
}

void mendLink(Model& model) {
    const double delay = model.net.link.delay;
    model.net.link = {};
    model.net.link.delay = delay;
}

// Faults come around bursts. A stall that begins within a spell of at most 30 seconds has two
// resends in the 70 seconds after it, whenever it began, and is never given up: one may find what
// the peer has left of a connection before, the next one opens.
void planSpells(Model& model, const std::vector<double>& bursts) {
    SeededRandom& random = model.net.random;
    double free = 0;
    for (const double burst : bursts) {
        double begin = burst + random.between(-1, 1);
        if (begin < free || random.chance(0.2)) continue;
        double end = begin + kSpellSeconds * std::pow(random.unit(), 2);
        if (model.kind == Kind::kWild && random.chance(0.2)) end = begin + random.between(60, 250);
        free = end + kBetweenSpells;
        at(model, begin, [&model] { drawLink(model); });
        at(model, end, [&model] { mendLink(model); });
    }
}

double drawTime(SeededRandom& random, const std::vector<double>& bursts) {
    const double burst = bursts[random.below(static_cast<uint32_t>(bursts.size()))];
    return burst + std::pow(10, random.between(-3, 1));
}

void reopen(ReliableNet& net, uint32_t host) {
    if (!net.hosts[host]->isUp && !netOpen(net, host)) netFault(net, "no endpoint");
}

void planEnds(Model& model, const std::vector<double>& bursts) {
    SeededRandom& random = model.net.random;
    ReliableNet& net = model.net;
    const bool flushes = random.chance(0.5);
    const bool crashes = random.chance(0.5);
    for (uint32_t count = 1 + random.below(3); count > 0; --count) {
        const uint32_t host = random.below(static_cast<uint32_t>(net.hosts.size()));
        const double time = drawTime(random, bursts);
        const double back =
            time + (random.chance(0.7) ? random.between(0, 1) : random.between(0, 200));
        const bool flush = random.chance(flushes ? 0.7 : 0);
        const bool crash = random.chance(crashes ? 0.6 : 0);
        at(model, time, [&net, host, flush, crash] {
            if (!net.hosts[host]->isUp || net.hosts[host]->core.flushing) return;
            if (crash) return netCrash(net, host);
            netClose(net, host, flush);
        });
        if (random.chance(0.2)) continue;
        at(model, back, [&net, host] { reopen(net, host); });
    }
}

// One endpoint closes, and another one may stand in its place at once.
void planFlush(Model& model, const std::vector<double>& bursts) {
    SeededRandom& random = model.net.random;
    ReliableNet& net = model.net;
    const uint32_t host = random.below(static_cast<uint32_t>(net.hosts.size()));
    const double time = drawTime(random, bursts);
    at(model, time, [&net, host] { netClose(net, host, true); });
    if (random.chance(0.5))
        at(model, time + random.between(0, 12), [&net, host] { reopen(net, host); });
}

void plan(Model& model, const NetMemory& memory) {
    ReliableNet& net = model.net;
    SeededRandom& random = net.random;
    constexpr Kind kKinds[] = {Kind::kFaultless, Kind::kFlushing, Kind::kTame, Kind::kTame,
                               Kind::kWild,      Kind::kWild,     Kind::kWild};
    model.kind = kKinds[random.below(std::size(kKinds))];
    net.link.delay = std::pow(10, random.between(-4, -1));
    const uint32_t hosts = random.chance(0.85) ? 2 : 3;
    for (uint32_t i = 0; i < hosts; ++i)
        netAddHost(net);
    for (uint32_t i = 0; i < hosts; ++i) {
        if (!netOpen(net, i)) netFault(net, "no endpoint");
    }
    if (model.kind == Kind::kWild && random.chance(0.15))
        net.hosts[1]->alias.address = htonl(0x0a000101);
    for (uint32_t from = 0; from < hosts; ++from) {
        for (uint32_t to = 0; to < hosts; ++to)
            model.ways[{from, to}] = net.hosts[to]->alias;
    }

    const std::vector<double> bursts = planTraffic(model);
    if (model.kind == Kind::kFlushing) planFlush(model, bursts);
    if (model.kind == Kind::kTame || model.kind == Kind::kWild) planSpells(model, bursts);
    if (model.kind != Kind::kWild) return;
    if (random.chance(0.7)) planEnds(model, bursts);
    if (memory.arm != nullptr && random.chance(0.2)) {
        net.memory = memory;
        net.memory.failing = std::pow(10, random.between(-3, -1));
    }
}

// How it must end.

void checkStreams(Model& model) {
    ReliableNet& net = model.net;
    for (auto& [key, stream] : model.streams) {
        const auto [from, life, to] = key;
        if (net.hosts[from]->life != life) continue;  // closed or crashed
        uint64_t missing = 0;
        size_t which = 0;
        for (size_t i = 0; i < stream.sent.size(); ++i) {
            if (stream.sent[i].arrived || stream.sent[i].isReported) continue;
            if (missing == 0) which = i;
            missing += stream.sent[i].size;
        }
        const uint64_t reported = model.reportedInbound[{from, to}];
        if (missing > reported) {
            netFault(net, "message %zu from %u to %u is missing", which, from, to);
        }
    }
}

void checkHosts(Model& model) {
    ReliableNet& net = model.net;
    for (const std::unique_ptr<NetHost>& host : net.hosts) {
        if (!host->isUp) continue;
        const EndpointCore& core = host->core;
        if (core.byPeer->count + core.byId->count + core.connections != 0 || core.halfOpen != 0 ||
            core.share.bytes != 0 || host->waiters != 0 || endpointNextDeadline(&core) < kNever) {
            netFault(net,
                     "host %u keeps %u peers, %u ids, %u connections, %u half open, %llu bytes",
                     host->index, core.byPeer->count, core.byId->count, core.connections,
                     core.halfOpen, static_cast<unsigned long long>(core.share.bytes));
        }
    }
}

void live(Model& model) {
    ReliableNet& net = model.net;
    std::stable_sort(model.actions.begin(), model.actions.end(),
                     [](const Action& a, const Action& b) { return a.at < b.at; });
    for (const Action& action : model.actions) {
        netRun(net, action.at);
        if (!net.fault.empty()) return;
        action.run();
    }
    net.memory.failing = 0;
    mendLink(model);
    netRun(net, net.now + kSettleSeconds);
    const uint64_t packets = net.packets;
    const double until = net.now + kQuietSeconds;
    while (!netIsQuiet(net) && net.now < until && net.fault.empty())
        netRun(net, std::min(until, netNext(net)));
    if (net.packets - packets > kQuietPackets) netFault(net, "connections at rest are loud");
    if (!netIsQuiet(net)) netFault(net, "connections stay for good");
    if (model.kind == Kind::kFaultless && net.stalls != 0) netFault(net, "a stall for no reason");
    checkHosts(model);
    checkStreams(model);
}

}  // namespace

ModelOutcome modelLive(uint64_t seed, const NetMemory& memory, FILE* trace) {
    Model model(seed);
    model.net.trace = trace;
    plan(model, memory);
    watch(model);
    live(model);
    return {model.net.fault, model.messages, model.net.packets, model.net.repeats};
}
