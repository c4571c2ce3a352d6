#include "lib/transport/reliable/connection.h"

#include <cstdlib>
#include <type_traits>
#include <utility>

#include "lib/transport/reliable/connection_internal.h"
#include "lib/transport/reliable/key_table.h"

static_assert(std::is_standard_layout_v<ReliableConnection>);

namespace {

// Lists

void joinAll(ReliableConnection* connection) {
    EndpointCore* const core = connection->core;
    connection->next = core->first;
    if (core->first != nullptr) core->first->previous = connection;
    core->first = connection;
    ++core->connections;
}

void leaveAll(ReliableConnection* connection) {
    EndpointCore* const core = connection->core;
    (connection->previous != nullptr ? connection->previous->next : core->first) = connection->next;
    if (connection->next != nullptr) connection->next->previous = connection->previous;
    --core->connections;
}

// Tables

void leaveById(ReliableConnection* connection) {
    if (!std::exchange(connection->isInById, false)) return;
    keyTableRemove(connection->core->byId, connection->idKey);
}

void leaveTables(ReliableConnection* connection) {
    for (uint32_t i = 0; i < connection->peerKeyCount; ++i)
        keyTableRemove(connection->core->byPeer, connection->peerKeys[i]);
    connection->peerKeyCount = 0;
    leaveById(connection);
}

void freeRecord(ReliableConnection* connection) {
    const EndpointSink& sink = connection->core->sink;
    if (connection->waiter != nullptr) sink.dropWaiter(sink.closure, connection->waiter);
    std::free(connection);
}

void tellLosses(ReliableConnection* connection, EndReason reason, EndpointOutput* out) {
    if (reason == EndReason::kUnused) return;
    if (!sendBufferIsEmpty(&connection->send)) {
        const uint64_t bytes = sendBufferPayloadBytes(&connection->send);
        outputLoss(out, false, connection->peerAddress, bytes);
    }
    if (reason == EndReason::kLost) connectionForgetReceived(connection, out);
}

}  // namespace

ReliableConnection* Connection_Create(EndpointCore* core, double now, const PeerAddress& peer) {
    auto* const made = static_cast<ReliableConnection*>(std::calloc(1, sizeof(ReliableConnection)));
    if (made == nullptr) return nullptr;
    made->core = core;
    made->createTime = now;
    made->peerAddress = peer;
    made->state = kListen;
    made->isIdle = true;
    made->isRunning = true;
    windowInit(&made->window, kReceiveWindow);
    reassemblyInit(&made->reassembly, &core->share);
    connectionStartTimers(made, now);
    if (!deadlineHeapReserve(&core->deadlines, core->connections + 1) ||
        !connectionAddKey(made, peer)) {
        std::free(made);
        return nullptr;
    }
    joinAll(made);
    return made;
}

ReliableConnection* connectionFind(const EndpointCore* core, const PeerAddress& peer) {
    return keyTableFind(core->byPeer, keyOfPeer(peer));
}

void connectionTearDown(ReliableConnection* connection, EndReason reason, EndpointOutput* out) {
    if (connection->isClosed) return;
    leaveTables(connection);
    leaveAll(connection);
    connectionLeaveHalfOpen(connection);
    connectionEndFlush(connection, out);
    tellLosses(connection, reason, out);
    sendBufferClear(&connection->send);
    reassemblyFree(&connection->reassembly);
    deadlineSet(&connection->core->deadlines, &connection->deadline, kNever);
    connection->state = kClosed;
    connection->isRunning = false;
    connection->isClosed = true;
}

void connectionSettle(ReliableConnection* connection, double now) {
    EndpointCore* const core = connection->core;
    const bool mayGoOn = connection->isClosed || !sendBufferIsFull(&connection->send);
    if (connection->holders != 0 && connection->waiter != nullptr && mayGoOn) {
        core->sink.wakeSenders(core->sink.closure, connection->waiter);
    }
    if (!connection->isClosed) {
        deadlineSet(&core->deadlines, &connection->deadline,
                    connectionNextDeadline(connection, now));
    } else if (connection->holders == 0) {
        freeRecord(connection);
    }
}

void connectionEnter(ReliableConnection* connection, ConnectionState next, double now) {
    const ConnectionState before = std::exchange(connection->state, next);
    if (before == kSynReceived && next != kSynReceived) connectionLeaveHalfOpen(connection);
    if (!connectionHas(connection, kSynUnderWay)) leaveById(connection);
    connection->timeWaitAt = next == kTimeWait ? now + kTimeWaitSeconds : kNever;
    if (next == kFinWait1 || next == kSynSent || next == kSynReceived) {
        connection->tookAfterFin = false;
    }
}

void connectionNewId(ReliableConnection* connection) {
    EndpointCore* const core = connection->core;
    uint32_t id = 0;
    while (id == 0 || id == core->lastId || id == connection->localId ||
           keyTableFind(core->byId, id) != nullptr) {
        id = core->sink.drawId(core->sink.closure);
    }
    leaveById(connection);
    core->lastId = connection->localId = id;
}

bool connectionNewIdFound(ReliableConnection* connection) {
    connectionNewId(connection);
    connection->idKey = connection->localId;
    connection->isInById = keyTablePut(connection->core->byId, &connection->idKey, connection);
    return connection->isInById;
}

bool connectionAddKey(ReliableConnection* connection, const PeerAddress& peer) {
    Hash* const byPeer = connection->core->byPeer;
    const uint32_t place = connection->peerKeyCount == 0 ? 0 : 1;
    if (connection->peerKeyCount == 2) {
        keyTableRemove(byPeer, connection->peerKeys[place]);
        --connection->peerKeyCount;
    }
    connection->peerKeys[place] = keyOfPeer(peer);
    if (!keyTablePut(byPeer, &connection->peerKeys[place], connection)) return false;
    ++connection->peerKeyCount;
    return true;
}

void connectionJoinHalfOpen(ReliableConnection* connection) {
    EndpointCore* const core = connection->core;
    if (connection->isHalfOpen) return;
    connection->isHalfOpen = true;
    ReliableConnection* const before = std::exchange(core->newestHalfOpen, connection);
    connection->previousHalfOpen = before;
    (before != nullptr ? before->nextHalfOpen : core->oldestHalfOpen) = connection;
    ++core->halfOpen;
}

void connectionLeaveHalfOpen(ReliableConnection* connection) {
    if (!std::exchange(connection->isHalfOpen, false)) return;
    EndpointCore* const core = connection->core;
    ReliableConnection* const before = std::exchange(connection->previousHalfOpen, nullptr);
    ReliableConnection* const behind = std::exchange(connection->nextHalfOpen, nullptr);
    (before != nullptr ? before->nextHalfOpen : core->oldestHalfOpen) = behind;
    (behind != nullptr ? behind->previousHalfOpen : core->newestHalfOpen) = before;
    --core->halfOpen;
}

void connectionEndFlush(ReliableConnection* connection, EndpointOutput* out) {
    if (!std::exchange(connection->isFlushing, false)) return;
    --connection->core->unflushed;
    out->flushAdvanced = true;
}

void outputLoss(EndpointOutput* out, bool isInbound, const PeerAddress& peer, uint64_t bytes) {
    for (uint32_t i = 0; i < out->lossCount; ++i) {
        LossReport& loss = out->losses[i];
        const bool isLastPlace = i == kMostLosses - 1;
        if ((loss.inbound != isInbound || loss.peer != peer) && !isLastPlace) continue;
        loss.bytes += bytes;
        return;
    }
    out->losses[out->lossCount++] = {.inbound = isInbound, .peer = peer, .bytes = bytes};
}

void connectionForgetReceived(ReliableConnection* connection, EndpointOutput* out) {
    Reassembly* const reassembly = &connection->reassembly;
    if (!reassemblyIsEmpty(reassembly)) {
        outputLoss(out, true, connection->peerAddress, reassembly->bytes);
    }
    reassemblyFree(reassembly);
    connection->rcvNxt = connection->rcvEdge = connection->finSeq = 0;
}
