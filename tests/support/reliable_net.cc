#include "tests/support/reliable_net.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/containers/hash.h"
#include "lib/msg/buffer.h"
#include "lib/msg/wire.h"

namespace {

constexpr uint32_t kMostTicks = 10'000;  // at one time: more are a loop without end
constexpr double kMostFlushSeconds = 11.0;

struct Waiter {
    NetHost* host;
    bool woken;
};

const uint8_t* filling(uint32_t name) {
    static const std::vector<uint8_t> block = [] {
        std::vector<uint8_t> bytes(kMostNetMessageBytes + 0x10000);
        SeededRandom random{std::mt19937_64(1)};
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random.engine());
        return bytes;
    }();
    return &block[name * 7919 % 0x10000];
}

__attribute__((format(printf, 2, 3))) void note(const ReliableNet& net, const char* format, ...) {
    if (net.trace == nullptr) return;
    std::fprintf(net.trace, "%12.6f ", net.now - kNetBegin);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(net.trace, format, arguments);
    va_end(arguments);
    std::fputc('\n', net.trace);
}

void trace(const ReliableNet& net, const NetFlight& flight, const char* what) {
    Packet packet = {};
    if (net.trace == nullptr || !packetRead(flight.bytes, &packet)) return note(net, "%s", what);
    const PacketHeader& header = packet.header;
    std::string flags;
    for (const auto& [flag, letter] :
         {std::pair{kFlagSyn, 'S'}, {kFlagFin, 'F'}, {kFlagRst, 'R'}, {kFlagCloseNotice, 'N'}})
        flags += (header.flags & flag) != 0 ? std::string(1, letter) : "";
    note(net, "%-6s %u>%u %08x>%08x %s seq %ju ack %ju %zu bytes at %u of %u", what,
         ntohs(flight.from.port), ntohs(flight.to.port), header.sourceId, header.destId,
         flags.c_str(), uintmax_t{header.seq}, uintmax_t{header.ack}, packet.payload.size(),
         packet.fragment.offset, packet.fragment.totalSize);
}

void fly(ReliableNet& net, const NetFlight& flight) {
    const NetLink& link = net.link;
    double due = net.now + link.delay;
    if (link.jitter > 0) due -= link.jitter * std::log(1 - net.random.unit());
    if (net.random.chance(link.late)) due += net.random.between(0, 5);
    net.flights.emplace(due, flight);
}

// Acknowledgements that come alone are never refused for their own number.
void noteAcknowledged(NetHost& host, const Packet& packet) {
    const PacketHeader& header = packet.header;
    if (!packet.payload.empty() || header.flags != 0) return;
    uint64_t& most = host.acknowledged[netIds(header.destId, header.sourceId)];
    most = std::max(most, header.ack);
}

bool isAcknowledged(const NetHost& host, const Packet& packet) {
    const auto found = host.acknowledged.find(netIds(packet.header.sourceId, packet.header.destId));
    return found != host.acknowledged.end() && packet.header.seq < found->second;
}

void send(void* closure, const PeerAddress& to, const OutDatagram& datagram) {
    NetHost& host = *static_cast<NetHost*>(closure);
    ReliableNet& net = *host.net;
    NetFlight flight = {host.address, to, {datagram.head.begin(), datagram.head.end()}};
    flight.bytes.insert(flight.bytes.end(), datagram.payload.begin(), datagram.payload.end());
    if (++net.packets > net.mostPackets) netFault(net, "packets without end");
    if (datagram.isRepeat) ++net.repeats;
    const bool isOnTick = host.lastArrival < net.now;
    if (datagram.isRepeat && isOnTick && !datagram.payload.empty()) ++net.stalls;

    Packet packet;
    if (!packetRead(flight.bytes, &packet)) return netFault(net, "sends what is no packet");
    const bool isRepeatedData = datagram.isRepeat && !packet.payload.empty();
    if (isRepeatedData && !net.hasForgers && isAcknowledged(host, packet)) {
        netFault(net, "host %u sends again what has arrived", host.index);
    }
    if (net.watch.sent) net.watch.sent(host, to, packet);
    const NetHost* const target = netFind(net, to);
    const bool isLost = target == nullptr || net.link.isCut[host.index][target->index] ||
                        net.random.chance(net.link.loss) ||
                        (net.watch.loses && net.watch.loses(host, packet));
    trace(net, flight, isLost ? "lost" : datagram.isRepeat ? "repeat" : "sends");
    if (isLost) return;
    if (net.random.chance(net.link.twice)) fly(net, flight);
    fly(net, flight);
}

void wake(void*, void* waiter) {
    if (waiter != nullptr) static_cast<Waiter*>(waiter)->woken = true;
}

void dropWaiter(void*, void* waiter) {
    if (waiter == nullptr) return;
    --static_cast<Waiter*>(waiter)->host->waiters;
    delete static_cast<Waiter*>(waiter);
}

// Apart from the net's random numbers, which tell what becomes of packets.
uint32_t drawId(void* closure) {
    NetHost& host = *static_cast<NetHost*>(closure);
    return (++host.ids * kMostNetHosts + host.index) * 0x9e3779b1u;
}

// Senders go on when they were woken and find room or the end. One that has either and wasn't woken
// would wait for good.
void seeToSenders(NetHost& host) {
    for (size_t i = 0; i < host.senders.size();) {
        const NetSender sender = host.senders[i];
        auto* const waiter = static_cast<Waiter*>(connectionWaiter(sender.connection));
        const bool isClosed = connectionIsClosed(sender.connection);
        if (!isClosed && !connectionHasRoom(sender.connection)) {
            ++i;
            continue;
        }
        if (!waiter->woken) netFault(*host.net, "a sender of host %u stays asleep", host.index);
        host.senders.erase(host.senders.begin() + static_cast<ptrdiff_t>(i));
        connectionLetGo(&host.core, sender.connection);
        if (host.net->watch.senderGoesOn) host.net->watch.senderGoesOn(host, sender, isClosed);
    }
    for (const NetSender& sender : host.senders) {
        static_cast<Waiter*>(connectionWaiter(sender.connection))->woken = false;
    }
}

void takeOutput(NetHost& host, const EndpointOutput& out) {
    const NetWatch& watch = host.net->watch;
    if (out.lossCount > kMostLosses) netFault(*host.net, "%u losses", out.lossCount);
    for (uint32_t i = 0; i < out.lossCount; ++i) {
        note(*host.net, "%u lost %s %u: %ju", ntohs(host.address.port),
             out.losses[i].inbound ? "from" : "to", ntohs(out.losses[i].peer.port),
             uintmax_t{out.losses[i].bytes});
        if (watch.lost) watch.lost(host, out.losses[i]);
    }
    if (out.messages == nullptr) return;
    for (uint32_t i = 0; i < out.messages->count; ++i) {
        auto* const message = static_cast<pelmoMsg*>(out.messages->items[i]);
        if (watch.message) watch.message(host, out.peer, message);
        msgRelease(message);
    }
    dpaDestroy(out.messages);
}

// One call of the core, with an allocation that fails where the seed wants it.
template <typename Call>
void call(NetHost& host, Call run) {
    ReliableNet& net = *host.net;
    EndpointOutput out = {};
    const bool fails = net.memory.failing > 0 && net.random.chance(net.memory.failing);
    if (fails) net.memory.arm(net.random.below(6), net.random.chance(0.2));
    run(&out);
    if (fails) net.memory.heal();
    takeOutput(host, out);
}

void endClose(NetHost& host) {
    bool isMore = true;
    while (isMore) {
        call(host, [&](EndpointOutput* out) {
            isMore = endpointCloseEnd(&host.core, host.net->now, out);
        });
    }
    seeToSenders(host);
    if (!host.senders.empty()) netFault(*host.net, "senders wait after the close");
    netCrash(*host.net, host.index);
    if (host.net->watch.closed) host.net->watch.closed(host);
}

// All that is due, and what follows from it.
void settle(NetHost& host) {
    ReliableNet& net = *host.net;
    uint32_t ticks = 0;
    while (host.isUp && endpointNextDeadline(&host.core) <= net.now) {
        bool served = false;
        call(host, [&](EndpointOutput* out) { served = endpointTick(&host.core, net.now, out); });
        if (served && ++ticks < kMostTicks) continue;
        netFault(net, "a deadline stays in the past");
        return netCrash(net, host.index);
    }
    seeToSenders(host);
    if (!host.core.flushing) return;
    if (endpointIsFlushed(&host.core)) return endClose(host);
    if (net.now > std::max(host.closeBegin, host.lastArrival) + kMostFlushSeconds + 0.001) {
        netFault(net, "host %u flushes on and on", host.index);
        endClose(host);
    }
}

void arrive(ReliableNet& net, const NetFlight& flight) {
    NetHost* const host = netFind(net, flight.to);
    if (host == nullptr || !host->isUp) return trace(net, flight, "no host");
    trace(net, flight, "takes");
    Packet packet;
    const bool isPacket = packetRead(flight.bytes, &packet);
    if (isPacket && net.watch.arrives) net.watch.arrives(*host, flight.from, packet);
    if (isPacket) noteAcknowledged(*host, packet);
    host->lastArrival = net.now;
    call(*host, [&](EndpointOutput* out) {
        endpointTakeDatagram(&host->core, net.now, flight.from, flight.bytes, out);
    });
    settle(*host);
}

}  // namespace

ReliableNet::~ReliableNet() {
    for (uint32_t host = 0; host < hosts.size(); ++host)
        netCrash(*this, host);
}

void netFault(ReliableNet& net, const char* format, ...) {
    char text[200];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    note(net, "FAULT %s", text);
    if (net.fault.empty()) net.fault = "at " + std::to_string(net.now - kNetBegin) + ": " + text;
}

uint32_t netAddHost(ReliableNet& net) {
    auto host = std::make_unique<NetHost>();
    const auto index = static_cast<uint32_t>(net.hosts.size());
    host->net = &net;
    host->index = index;
    host->address = {htonl(0x0a000001 + index), htons(static_cast<uint16_t>(7001 + index))};
    host->alias = host->address;
    net.hosts.push_back(std::move(host));
    return index;
}

NetHost* netFind(ReliableNet& net, const PeerAddress& address) {
    for (const std::unique_ptr<NetHost>& host : net.hosts) {
        if (host->address == address || host->alias == address) return host.get();
    }
    return nullptr;
}

bool netOpen(ReliableNet& net, uint32_t index) {
    NetHost& host = *net.hosts[index];
    const EndpointSink sink = {&host, send, wake, dropWaiter, drawId};
    host.isUp = endpointInit(&host.core, sink) == kStatusSuccess;
    return host.isUp;
}

void netCrash(ReliableNet& net, uint32_t index) {
    NetHost& host = *net.hosts[index];
    if (!host.isUp) return;
    for (const NetSender& sender : host.senders)
        connectionLetGo(&host.core, sender.connection);
    host.senders.clear();
    endpointFree(&host.core);
    if (host.waiters != 0) netFault(net, "%u waiters are left", host.waiters);
    host.waiters = 0;
    host.isUp = false;
    ++host.life;
    note(net, "%u is gone", 7001 + index);
}

void netClose(ReliableNet& net, uint32_t index, bool flush) {
    NetHost& host = *net.hosts[index];
    host.closeBegin = net.now;
    note(net, "%u closes%s", 7001 + index, flush ? ", flushing" : "");
    call(host, [&](EndpointOutput* out) { endpointCloseBegin(&host.core, net.now, flush, out); });
    if (!flush) return endClose(host);
    settle(host);
}

pelmoStatus netSend(ReliableNet& net,
                    uint32_t index,
                    const PeerAddress& to,
                    std::span<pelmoMsg* const> messages,
                    bool delaySmall) {
    NetHost& host = *net.hosts[index];
    ReliableConnection* connection = nullptr;
    pelmoStatus status = kStatusSuccess;
    call(host, [&](EndpointOutput* out) {
        status = endpointSend(&host.core, net.now, to, messages, delaySmall, &connection, out);
    });
    if (connection != nullptr) {
        void*& waiter = connectionWaiter(connection);
        if (waiter == nullptr) {
            waiter = new Waiter{&host, false};
            ++host.waiters;
        }
        host.senders.push_back({connection, to, ++net.senderTokens});
    }
    return status;
}

void netInject(ReliableNet& net,
               const PeerAddress& from,
               const PeerAddress& to,
               std::span<const uint8_t> bytes) {
    net.flights.emplace(net.now, NetFlight{from, to, {bytes.begin(), bytes.end()}});
}

double netNext(const ReliableNet& net) {
    double next = net.flights.empty() ? kNever : net.flights.begin()->first;
    for (const std::unique_ptr<NetHost>& host : net.hosts) {
        if (host->isUp) next = std::min(next, endpointNextDeadline(&host->core));
    }
    return next;
}

void netRun(ReliableNet& net, double until) {
    for (double next = netNext(net); next <= until && net.fault.empty(); next = netNext(net)) {
        net.now = std::max(net.now, next);
        if (!net.flights.empty() && net.flights.begin()->first <= net.now) {
            arrive(net, net.flights.extract(net.flights.begin()).mapped());
            continue;
        }
        for (const std::unique_ptr<NetHost>& host : net.hosts) {
            if (host->isUp) settle(*host);
        }
    }
    net.now = std::max(net.now, until);
}

bool netIsQuiet(const ReliableNet& net) {
    return std::all_of(net.hosts.begin(), net.hosts.end(), [](const auto& host) {
        return !host->isUp || host->core.byPeer->count == 0;
    });
}

void netWriteMessage(uint8_t* at, uint32_t size, uint32_t name) {
    storeBe32At(at, size);
    storeBe32At(at + 4, kMessageMagic);
    const uint32_t head = std::min(size, kNetNamedBytes);
    std::memset(at + 8, 0, head - 8);
    if (head == kNetNamedBytes) storeBe32At(at + 8, name);
    std::memcpy(at + head, filling(name), size - head);
}

HeldMessage netMessage(uint32_t size, uint32_t name) {
    Buffer* const buffer = bufferCreate(size);
    netWriteMessage(buffer->data, size, name);
    pelmoMsg* message = nullptr;
    if (msgCreateOverBuffer(&message, buffer, 0) != kStatusSuccess) std::abort();
    bufferRelease(buffer);
    return HeldMessage(message);
}

uint32_t netMessageName(const pelmoMsg* message) {
    return loadBe32({{msgImage(message), message->length}}, 8);
}

bool netIsMessage(const pelmoMsg* message, uint32_t name) {
    const uint32_t head = std::min(message->length, kNetNamedBytes);
    return std::memcmp(msgImage(message) + head, filling(name), message->length - head) == 0;
}
