#include "lib/transport/reliable/endpoint_core.h"

#include <utility>

#include "lib/transport/reliable/connection.h"
#include "lib/transport/reliable/key_table.h"

namespace {

constexpr uint32_t kFirstBuckets = 16;

// A peer begins with 1, or reopens with the number that it has got to. From a number up to here no
// count of packets overflows.
constexpr uint64_t kMostFirstSeq = uint64_t{1} << 62;

bool isSoundSyn(const PacketHeader& header) {
    const bool isReset = (header.flags & kFlagRst) != 0;
    return !isReset && header.sourceId != 0 && header.seq <= kMostFirstSeq;
}

// Half-open connections cost those who make packets up nothing: the oldest one goes for the newest.
void boundHalfOpen(EndpointCore* core, const CoreCall& call) {
    while (core->halfOpen > core->mostHalfOpen) {
        ReliableConnection* const oldest = core->oldestHalfOpen;
        connectionTearDown(oldest, EndReason::kUnused, call.out);
        connectionSettle(oldest, call.now);
        call.out->notices |= kNoticeHalfOpen;
    }
}

void takeSyn(EndpointCore* core,
             const CoreCall& call,
             const PeerAddress& source,
             const Packet& packet) {
    if (!core->open) return;
    ReliableConnection* connection = connectionFind(core, source);
    if (connection == nullptr) connection = Connection_Create(core, call.now, source);
    if (connection == nullptr) return;
    connectionTakeSyn(connection, call, source, packet);
    connectionSettle(connection, call.now);
    boundHalfOpen(core, call);
}

void takeSynAck(EndpointCore* core,
                const CoreCall& call,
                const PeerAddress& source,
                const Packet& packet) {
    ReliableConnection* connection = keyTableFind(core->byId, packet.header.destId);
    if (connection != nullptr) {
        connectionTakeSynAck(connection, call, source, packet);
    } else {
        connection = connectionFind(core, source);
        if (connection == nullptr) return;
        connectionTakeLateSynAck(connection, call, source, packet);
    }
    connectionSettle(connection, call.now);
}

void takePacket(EndpointCore* core,
                const CoreCall& call,
                const PeerAddress& source,
                const Packet& packet) {
    ReliableConnection* const connection = connectionFind(core, source);
    if (connection != nullptr) {
        connectionTakePacket(connection, call, source, packet);
        return connectionSettle(connection, call.now);
    }
    ++core->counts.packetsDropped;
    const bool isReset = (packet.header.flags & kFlagRst) != 0;
    if (!isReset) packetAnswerReset(core, source, packet.header);
}

}  // namespace

pelmoStatus endpointInit(EndpointCore* core, const EndpointSink& sink) {
    *core = {};
    core->sink = sink;
    core->byPeer = hashCreate(kFirstBuckets);
    core->byId = hashCreate(kFirstBuckets);
    if (core->byPeer == nullptr || core->byId == nullptr) {
        endpointFree(core);
        return kStatusNoMemory;
    }
    core->share.most = kMostReassemblyBytes;
    core->mostHalfOpen = kMostHalfOpen;
    core->open = true;
    return kStatusSuccess;
}

void endpointFree(EndpointCore* core) {
    EndpointOutput ignored = {};
    while (core->first != nullptr) {
        ReliableConnection* const connection = core->first;
        connectionTearDown(connection, EndReason::kUnused, &ignored);
        connectionSettle(connection, 0);
    }
    hashDestroy(std::exchange(core->byPeer, nullptr));
    hashDestroy(std::exchange(core->byId, nullptr));
    deadlineHeapFree(&core->deadlines);
}

void endpointTakeDatagram(EndpointCore* core,
                          double now,
                          const PeerAddress& source,
                          std::span<const uint8_t> datagram,
                          EndpointOutput* out) {
    const CoreCall call = {now, out};
    Packet packet;
    if (!packetRead(datagram, &packet)) {
        ++core->counts.packetsDropped;
        return;
    }
    ++core->counts.packetsReceived;
    const PacketHeader& header = packet.header;
    if ((header.flags & kFlagSyn) == 0) return takePacket(core, call, source, packet);
    if (!isSoundSyn(header)) {
        ++core->counts.packetsDropped;
    } else if (header.ack == 0) {
        takeSyn(core, call, source, packet);
    } else {
        takeSynAck(core, call, source, packet);
    }
}

pelmoStatus endpointSend(EndpointCore* core,
                         double now,
                         const PeerAddress& peer,
                         std::span<pelmoMsg* const> messages,
                         bool delaySmall,
                         ReliableConnection** outConnection,
                         EndpointOutput* out) {
    *outConnection = nullptr;
    if (!core->open) return kStatusInvalidTransport;
    if (messages.empty()) return kStatusSuccess;
    ReliableConnection* connection = connectionFind(core, peer);
    if (connection == nullptr) connection = Connection_Create(core, now, peer);
    if (connection == nullptr) return kStatusNoMemory;

    const pelmoStatus status = connectionSend(connection, {now, out}, messages, delaySmall);
    if (status == kStatusSuccess) {
        core->counts.messagesSent += messages.size();
        if (sendBufferIsFull(&connection->send)) {
            ++connection->holders;
            *outConnection = connection;
        }
    }
    connectionSettle(connection, now);
    return status;
}

double endpointNextDeadline(const EndpointCore* core) {
    const Deadline* const first = deadlineFirst(&core->deadlines);
    return first != nullptr ? first->at : kNever;
}

bool endpointTick(EndpointCore* core, double now, EndpointOutput* out) {
    Deadline* const first = deadlineFirst(&core->deadlines);
    if (first == nullptr || first->at > now) return false;
    auto* const connection = reinterpret_cast<ReliableConnection*>(first);
    connectionTick(connection, {now, out});
    connectionSettle(connection, now);
    return true;
}

void endpointCloseBegin(EndpointCore* core, double now, bool flush, EndpointOutput*) {
    core->open = false;
    core->flushing = flush;
    if (!flush) return;
    for (ReliableConnection* each = core->first; each != nullptr; each = each->next)
        connectionBeginFlush(each, now);
}

bool endpointIsFlushed(const EndpointCore* core) {
    return core->unflushed == 0;
}

EndpointUnsent endpointUnsent(const EndpointCore* core) {
    EndpointUnsent unsent = {};
    for (const ReliableConnection* each = core->first; each != nullptr; each = each->next) {
        unsent.messages += sendBufferMessages(&each->send);
        unsent.bytes += sendBufferPayloadBytes(&each->send);
    }
    return unsent;
}

bool endpointCloseEnd(EndpointCore* core, double now, EndpointOutput* out) {
    const bool isLeft = core->first != nullptr;
    while (core->first != nullptr && out->lossCount < kMostLosses) {
        ReliableConnection* const connection = core->first;
        connectionCloseEnd(connection, out);
        connectionSettle(connection, now);
    }
    return isLeft;
}

bool connectionHasRoom(const ReliableConnection* connection) {
    return !sendBufferIsFull(&connection->send);
}

bool connectionIsClosed(const ReliableConnection* connection) {
    return connection->isClosed;
}

void*& connectionWaiter(ReliableConnection* connection) {
    return connection->waiter;
}

void connectionLetGo(EndpointCore* core, ReliableConnection* connection) {
    (void)core;
    if (--connection->holders == 0 && connection->isClosed) connectionSettle(connection, 0);
}
