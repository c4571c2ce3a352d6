// Ticks of a connection: resending and giving up, what is delayed, idle connections, the end of the
// time-wait.

#include <cmath>

#include "lib/transport/reliable/connection_internal.h"

namespace {

constexpr double kSendWaitSeconds = 0.2;
constexpr double kIdleSeconds = 300.0;
constexpr double kRtoLimit = 60.0;  // a connection whose next interval would reach it is given up
constexpr double kFlushRtoLimit = 5.0;

// The tick of a periodic timer that comes next.
double nextTick(double base, double interval, double now) {
    const double count = std::floor((now - base) / interval) + 1;
    const double tick = base + count * interval;
    return tick > now ? tick : base + (count + 1) * interval;  // the sum may be rounded down
}

OutPacket* stalled(const ReliableConnection* connection) {
    return sendBufferFind(&connection->send, connection->window.lastAck);
}

bool controlIsUnderWay(const ReliableConnection* connection) {
    return connectionHas(connection, kSynUnderWay) || connectionHas(connection, kFinUnderWay);
}

// Messages wait until the peer has ended, too: whether it is still there is asked by an ACK, which
// only a living connection leaves unanswered.
bool waitsForPeersFin(const ReliableConnection* connection) {
    return connection->state == kFinWait2 && !sendBufferIsEmpty(&connection->send);
}

bool waitsForAnswer(const ReliableConnection* connection) {
    return stalled(connection) != nullptr || controlIsUnderWay(connection) ||
           connection->crossSeq != 0 || waitsForPeersFin(connection);
}

void resend(ReliableConnection* connection) {
    OutPacket* const packet = stalled(connection);
    if (packet != nullptr) return PacketResend(connection, packet);
    if (connection->crossSeq != 0) return connectionSendCrossing(connection);
    if (controlIsUnderWay(connection)) return connectionSendControl(connection, true);
    connectionSendAck(connection);
}

// Messages of a peer that we answer in vain may come again, once we have forgotten it.
void tellGivenUp(ReliableConnection* connection, EndpointOutput* out) {
    const SendBuffer* const send = &connection->send;
    if (sendBufferIsEmpty(send) && !connection->tookAfterFin) return;
    outputLoss(out, false, connection->peerAddress,
               uint64_t{sendBufferWaiting(send)} * kMostBlockBytes);
}

void giveUp(ReliableConnection* connection, const CoreCall& call) {
    if (connection->core->flushing) {  // its loss is reported at the end of the close
        connection->isRunning = false;
        return connectionEndFlush(connection, call.out);
    }
    tellGivenUp(connection, call.out);
    const ConnectionState state = connection->state;
    if (state != kSynSent && state != kLastAck) connectionSendReset(connection, 0);
    sendBufferClear(&connection->send);
    connectionTearDown(connection, EndReason::kLost, call.out);
}

// The first tick without an answer only arms.
void retransmitTick(ReliableConnection* connection, const CoreCall& call) {
    connection->retransmitAt = kNever;
    const double limit = connection->core->flushing ? kFlushRtoLimit : kRtoLimit;
    if (connection->rto * 2 >= limit) return giveUp(connection, call);
    if (!connection->isRetransmitArmed) {
        connection->isRetransmitArmed = true;
        return;
    }
    resend(connection);
    connection->isRetransmitArmed = false;
    connection->window.dupAcks = 0;
    connection->rto *= 2;
    connection->retransmitBase = call.now;
}

void sendWaitTick(ReliableConnection* connection) {
    connection->sendWaitAt = kNever;
    sendBufferEndDelay(&connection->send);
    if (connectionHas(connection, kSendsData)) (void)connectionSendWaiting(connection);
}

void idleTick(ReliableConnection* connection, const CoreCall& call) {
    connection->idleAt = nextTick(connection->idleBase, kIdleSeconds, call.now);
    if (!connection->isIdle) {
        connection->isIdle = true;
    } else if (connection->state == kFinWait2) {  // the peer has gone without its FIN
        connectionTearDown(connection, EndReason::kLost, call.out);
    } else if (connection->state == kEstablished && sendBufferIsEmpty(&connection->send)) {
        connectionSendFin(connection);
        connectionEnter(connection, kFinWait1, call.now);
    }
}

bool isDue(const ReliableConnection* connection, double at, double now) {
    return connection->isRunning && at <= now;
}

}  // namespace

void connectionStartTimers(ReliableConnection* connection, double now) {
    connection->sendWaitAt = connection->timeWaitAt = kNever;
    connection->idleBase = now;
    connection->idleAt = now + kIdleSeconds;
    connectionResetRto(connection, now);
}

void connectionResetRto(ReliableConnection* connection, double now) {
    connection->rto = kFirstRto;
    connection->isRetransmitArmed = false;
    connection->retransmitBase = now;
    connection->retransmitAt = kNever;
}

double connectionNextDeadline(ReliableConnection* connection, double now) {
    if (!connection->isRunning) return kNever;
    const bool isDelayed = connection->send.delayed != 0;
    if (!isDelayed) connection->sendWaitAt = kNever;
    if (isDelayed && connection->sendWaitAt == kNever) {
        connection->sendWaitAt = nextTick(connection->createTime, kSendWaitSeconds, now);
    }
    const bool isWaiting = waitsForAnswer(connection);
    if (!isWaiting) connection->retransmitAt = kNever;
    if (isWaiting && connection->retransmitAt == kNever) {
        connection->retransmitAt = nextTick(connection->retransmitBase, connection->rto, now);
    }
    // A flush is ended by its last acknowledgement, or by the limit of the resends.
    const double idleAt = connection->core->flushing ? kNever : connection->idleAt;
    return std::fmin(std::fmin(connection->sendWaitAt, connection->retransmitAt),
                     std::fmin(idleAt, connection->timeWaitAt));
}

void connectionTick(ReliableConnection* connection, const CoreCall& call) {
    const double now = call.now;
    if (isDue(connection, connection->sendWaitAt, now)) sendWaitTick(connection);
    if (isDue(connection, connection->retransmitAt, now)) retransmitTick(connection, call);
    if (isDue(connection, connection->idleAt, now)) idleTick(connection, call);
    if (isDue(connection, connection->timeWaitAt, now)) {
        connectionTearDown(connection, EndReason::kLost, call.out);
    }
}

void connectionBeginFlush(ReliableConnection* connection, double now) {
    const bool isHopeless = connection->rto >= kFlushRtoLimit;
    if (!connection->isRunning || isHopeless || sendBufferIsEmpty(&connection->send)) return;
    connection->isFlushing = true;
    ++connection->core->unflushed;
    sendBufferEndDelay(&connection->send);
    if (connectionHas(connection, kSendsData)) (void)connectionSendWaiting(connection);
    connectionSettle(connection, now);
}

void connectionCloseEnd(ReliableConnection* connection, EndpointOutput* out) {
    if (connectionHas(connection, kResetsAtClose)) {
        connectionSendReset(connection, connection->window.sndNxt);
    }
    connectionTearDown(connection, EndReason::kApplication, out);
}
