// How connections open: the peer's SYN, the answer to ours, and reopening.
//
// Two ends that open at the same time both answer the other's SYN by a SYN-ACK under the number
// after their own SYN. It is sent again until it is acknowledged, since what is sent after it waits
// for it at the peer, whichever packet has opened the connection there.
//
// Each incarnation of a connection has a local id of its own, so that what still comes for an
// earlier one is recognised and does no harm.

#include <algorithm>

#include "lib/transport/reliable/connection_internal.h"

namespace {

// Takes back what was sent to the incarnation before. A connection whose own SYN is under way keeps
// number and id: the answer may come yet.
void beginIncarnation(ReliableConnection* connection, const CoreCall& call) {
    if (!connectionHas(connection, kSynUnderWay)) {
        (void)sendBufferRewind(&connection->send);
        windowInit(&connection->window, kReceiveWindow);
        connection->window.sndNxt = connection->window.sndUna;
        connection->crossSeq = 0;
    }
    if (!connection->isInById) {
        connectionNewId(connection);
        connectionResetRto(connection, call.now);
    }
    connectionForgetReceived(connection, call.out);
}

void takePeer(ReliableConnection* connection, const Packet& packet) {
    connection->isIdle = false;
    connection->remoteId = packet.header.sourceId;
    connection->rcvNxt = packet.header.seq + 1;
    connection->rcvEdge = connection->rcvNxt + kReceiveWindow;
}

// The address that the packet came from leads to this connection. False where it leads to another
// one, or when memory ran out.
bool claimSource(ReliableConnection* connection, const PeerAddress& source) {
    const ReliableConnection* const known = connectionFind(connection->core, source);
    if (known != nullptr) return known == connection;
    return connectionAddKey(connection, source);
}

}  // namespace

void connectionTakeSyn(ReliableConnection* connection,
                       const CoreCall& call,
                       const PeerAddress& source,
                       const Packet& packet) {
    if (!connection->isRunning) return;
    const bool isKnown = packet.header.sourceId == connection->remoteId;
    if (isKnown && connection->state == kSynReceived) {
        return connectionSendControl(connection, true);
    }
    if (isKnown || connectionHas(connection, kSynIsRepeat)) return connectionSendAck(connection);

    beginIncarnation(connection, call);
    connection->peerAddress = source;
    takePeer(connection, packet);
    connection->window.peerWindow = usableWindow(packet);
    if (connection->state == kSynSent) connection->crossSeq = connection->window.sndNxt++;
    connectionEnter(connection, kSynReceived, call.now);
    connectionSendControl(connection, false);
    if (sendBufferIsEmpty(&connection->send)) connectionJoinHalfOpen(connection);
}

void connectionTakeSynAck(ReliableConnection* connection,
                          const CoreCall& call,
                          const PeerAddress& source,
                          const Packet& packet) {
    if (!connection->isRunning) return;
    const PacketHeader& header = packet.header;
    if (header.ack > connection->window.sndNxt) {
        return packetAnswerReset(connection->core, source, header);
    }
    if (header.ack < connection->window.sndUna || !claimSource(connection, source)) return;

    takePeer(connection, packet);
    windowOpened(&connection->window, header.ack, usableWindow(packet));
    if (header.ack > connection->crossSeq) connection->crossSeq = 0;
    connectionResetRto(connection, call.now);
    connectionEnter(connection, kEstablished, call.now);
    if (!connectionSendWaiting(connection)) connectionSendAck(connection);
}

bool Connection_Restart(ReliableConnection* connection, const CoreCall& call, bool discard) {
    SendWindow* const window = &connection->window;
    const uint64_t lowest = discard ? 0 : sendBufferRewind(&connection->send);
    const uint64_t next = discard ? 2 : std::max<uint64_t>(window->sndNxt, 2);
    if (!connectionNewIdFound(connection)) return false;

    connectionForgetReceived(connection, call.out);
    connection->remoteId = 0;
    connection->isIdle = true;
    windowInit(window, kReceiveWindow);
    window->sndUna = window->sndNxt = lowest != 0 ? lowest : next;
    window->lastAck = window->sndNxt - 1;
    connection->crossSeq = 0;
    connectionEnter(connection, kSynSent, call.now);
    connectionStartTimers(connection, call.now);
    connectionSendControl(connection, false);
    return true;
}
