// What the sources of a connection need of each other.

#pragma once

#include "lib/transport/reliable/connection.h"

inline constexpr double kFirstRto = 0.5;
inline constexpr double kTimeWaitSeconds = 0.5;

// Life

// All changes of the state go through here: lists, tables and timers follow.
void connectionEnter(ReliableConnection* connection, ConnectionState next, double now);

// A local id that no incarnation had; and the same, found by `byId` until the SYN is answered.
void connectionNewId(ReliableConnection* connection);
[[nodiscard]] bool connectionNewIdFound(ReliableConnection* connection);

// The connection is found under this address, too. False when memory ran out.
[[nodiscard]] bool connectionAddKey(ReliableConnection* connection, const PeerAddress& peer);

void connectionJoinHalfOpen(ReliableConnection* connection);
void connectionLeaveHalfOpen(ReliableConnection* connection);

// The endpoint's close needn't wait for it any more.
void connectionEndFlush(ReliableConnection* connection, EndpointOutput* out);

void outputLoss(EndpointOutput* out, bool isInbound, const PeerAddress& peer, uint64_t bytes);

// The peer continues with another number: drops what is held for the old ones.
void connectionForgetReceived(ReliableConnection* connection, EndpointOutput* out);

[[nodiscard]] inline bool connectionHas(const ReliableConnection* connection, StateTrait trait) {
    return (stateTraits(connection->state) & trait) != 0;
}

// Peers that never open their window would hold what is sent for good.
[[nodiscard]] inline uint64_t usableWindow(const Packet& packet) {
    return packet.header.window != 0 ? packet.header.window : 1;
}

// Opening

// Our FIN is out and the peer still sends. New data waits for the close: reopening now would make
// the peer deliver some messages twice. An endpoint that is closing accepts none and does not wait.
[[nodiscard]] bool connectionMustClose(const ReliableConnection* connection);

// With `discard` the numbers begin again, and nothing sent before is in the send buffer. Without,
// what isn't acknowledged is sent again, under the numbers that it had. False when memory ran out.
[[nodiscard]] bool Connection_Restart(ReliableConnection* connection,
                                      const CoreCall& call,
                                      bool discard);

// Sending

void PacketSend(ReliableConnection* connection, OutPacket* packet);
void PacketResend(ReliableConnection* connection, OutPacket* packet);

// The SYN, SYN-ACK or FIN that is under way.
void connectionSendControl(ReliableConnection* connection, bool isRepeat);

// The SYN-ACK that crossed the peer's, again.
void connectionSendCrossing(ReliableConnection* connection);

void connectionSendFin(ReliableConnection* connection);  // and it is under way
void connectionSendAck(ReliableConnection* connection);
void connectionSendReset(ReliableConnection* connection, uint64_t seq);

// As the window allows; false where nothing was sent.
bool connectionSendWaiting(ReliableConnection* connection);

// Timers

// Restarts the retransmission timer with its first interval.
void connectionResetRto(ReliableConnection* connection, double now);
void connectionStartTimers(ReliableConnection* connection, double now);
[[nodiscard]] double connectionNextDeadline(ReliableConnection* connection, double now);
