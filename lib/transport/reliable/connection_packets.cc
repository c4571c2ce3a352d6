// Packets of an open or closing connection: what is accepted, what the state table makes of it,
// what the payload gives, and what is sent in answer.

#include <algorithm>

#include "lib/containers/dpa.h"
#include "lib/transport/reliable/connection_internal.h"

namespace {

// One accepted packet on its way.
struct Step {
    ReliableConnection* connection;
    const CoreCall* call;
    const Packet* packet;
    bool takesPayload;
    bool inOrder;   // nothing is missing before it
    bool finNow;    // and with it all that the peer has sent is here
    bool ackIsDue;  // unless data takes it along
    bool isOver;    // answered by a reset
};

bool isWithin(uint64_t number, uint64_t first, uint64_t behind) {
    return number >= first && number < behind;
}

bool ackIsInRange(const ReliableConnection* connection, const PacketHeader& header) {
    const SendWindow& window = connection->window;
    return header.ack >= window.sndUna && header.ack <= window.sndNxt;
}

bool isInWindow(const ReliableConnection* connection, const PacketHeader& header) {
    return isWithin(header.seq, connection->rcvNxt, connection->rcvEdge);
}

bool takesNumber(const Packet& packet) {
    return !packet.payload.empty() || (packet.header.flags & kFlagFin) != 0;
}

// Acknowledgements

void resendMissing(ReliableConnection* connection, uint64_t number) {
    OutPacket* const packet = sendBufferFind(&connection->send, number);
    if (packet != nullptr) PacketResend(connection, packet);
    if (number == connection->crossSeq) connectionSendCrossing(connection);
    connection->isRetransmitArmed = false;
}

void ackStep(const Step& step) {
    ReliableConnection* const connection = step.connection;
    const uint64_t ack = step.packet->header.ack;
    if (!ackIsInRange(connection, step.packet->header)) return;
    connection->window.peerWindow = usableWindow(*step.packet);
    const AckVerdict verdict = windowAcknowledge(&connection->window, ack);
    const bool isPart = verdict == AckVerdict::kAdvancedPart;
    if (isPart || verdict == AckVerdict::kAdvanced) {
        sendBufferAcknowledge(&connection->send, ack);
        if (ack > connection->crossSeq) connection->crossSeq = 0;
        connectionResetRto(connection, step.call->now);
    }
    if (isPart || verdict == AckVerdict::kResend) resendMissing(connection, ack);
}

// The peer takes nothing any more: the numbers of what is lost count as acknowledged.
void discardSent(const Step& step) {
    ReliableConnection* const connection = step.connection;
    SendWindow* const window = &connection->window;
    if (!sendBufferIsEmpty(&connection->send)) {
        const uint64_t bytes = sendBufferPayloadBytes(&connection->send);
        outputLoss(step.call->out, false, connection->peerAddress, bytes);
    }
    sendBufferClear(&connection->send);
    window->sndUna = window->lastAck = window->sndNxt;
    window->dupAcks = 0;
    window->recoveryEnd = 0;
    connection->crossSeq = 0;
    connectionResetRto(connection, step.call->now);
}

// States

void perform(Step* step, const StateRow& row) {
    ReliableConnection* const connection = step->connection;
    const uint8_t actions = row.actions;
    if ((actions & kDoReset) != 0) {
        packetAnswerReset(connection->core, connection->peerAddress, step->packet->header);
        step->isOver = true;
    }
    if ((actions & kDoAckStep) != 0) ackStep(*step);
    if ((actions & kDoDiscard) != 0) discardSent(*step);
    if ((actions & kDoFin) != 0) connectionSendFin(connection);
    if ((actions & kDoAck) != 0) step->ackIsDue = true;
    if ((actions & kDoTearDown) != 0) {
        return connectionTearDown(connection, EndReason::kLost, step->call->out);
    }
    if (row.next != connection->state) connectionEnter(connection, row.next, step->call->now);
}

uint8_t ackFacts(const Step& step) {
    const PacketHeader& header = step.packet->header;
    if (!ackIsInRange(step.connection, header)) return kAckOutside;
    return header.ack == step.connection->window.sndNxt ? kAllAcked : 0;
}

void runStates(Step* step) {
    const bool isNotice = (step->packet->header.flags & kFlagCloseNotice) != 0;
    uint8_t facts = ackFacts(*step);
    if (step->finNow) facts |= kFinNow;
    if (isNotice) facts |= kNotice;
    const StateRow* row = nullptr;
    do {
        row = &stateRow(step->connection->state, facts);
        perform(step, *row);
        facts &= static_cast<uint8_t>(~kNotice);
    } while ((row->actions & kDoLookUpAgain) != 0);
}

// The FIN was held until now. The acknowledgement has been taken already.
void runHeldFin(Step* step) {
    const SendWindow& window = step->connection->window;
    const uint8_t facts = kFinNow | (window.sndUna == window.sndNxt ? kAllAcked : 0);
    StateRow row = stateRow(step->connection->state, facts);
    row.actions &= static_cast<uint8_t>(~kDoAckStep);
    perform(step, row);
}

// Sequence numbers

void moveReceived(ReliableConnection* connection, uint64_t next) {
    connection->rcvEdge += next - connection->rcvNxt;
    connection->rcvNxt = next;
}

// True where the FIN that was held comes next; it is passed.
bool passHeldFin(ReliableConnection* connection) {
    if (connection->finSeq == 0 || connection->rcvNxt != connection->finSeq) return false;
    connection->finSeq = 0;
    moveReceived(connection, connection->rcvNxt + 1);
    return true;
}

// What isn't taken isn't acknowledged either.
void trackNumbers(Step* step) {
    ReliableConnection* const connection = step->connection;
    const Packet& packet = *step->packet;
    const uint64_t seq = packet.header.seq;
    const bool isFin = (packet.header.flags & kFlagFin) != 0;
    step->inOrder = true;
    if (!takesNumber(packet) || (!packet.payload.empty() && !step->takesPayload)) return;
    if (seq > connection->rcvNxt) {
        step->inOrder = false;
        if (isFin) connection->finSeq = seq;
        return;
    }
    if (seq == connection->rcvNxt) moveReceived(connection, seq + 1);
    step->finNow = passHeldFin(connection) || isFin;
}

// What came may be all that the FIN has waited for.
void takeHeldFin(Step* step) {
    ReliableConnection* const connection = step->connection;
    if (passHeldFin(connection)) runHeldFin(step);
}

// Payload

uint32_t noticeOf(ReassemblyBound bound) {
    switch (bound) {
        case ReassemblyBound::kPeer:
            return kNoticePeerReassembly;
        case ReassemblyBound::kEndpoint:
            return kNoticeEndpointReassembly;
        case ReassemblyBound::kNone:
            break;
    }
    return 0;
}

void deliver(const Step& step, const ReassemblyResult& result, const PeerAddress& source) {
    EndpointOutput* const out = step.call->out;
    out->notices |= noticeOf(result.bound);
    if (result.isLost) outputLoss(out, true, step.connection->peerAddress, result.lostBytes);
    if (result.messages == nullptr) return;
    out->peer = source;
    out->messages = result.messages;
    step.connection->core->counts.messagesReceived += result.messages->count;
}

void takePayload(Step* step, const PeerAddress& source) {
    ReliableConnection* const connection = step->connection;
    ReassemblyResult result;
    reassemblyTake(&connection->reassembly,
                   {.packet = step->packet, .inOrder = step->inOrder, .rcvNxt = connection->rcvNxt},
                   &result);
    deliver(*step, result, source);
    step->ackIsDue = true;
    const bool peerIsAlive = connection->state == kFinWait2;
    if (peerIsAlive) connectionResetRto(connection, step->call->now);
    if (peerIsAlive || connectionHas(connection, kFinUnderWay)) connection->tookAfterFin = true;
    if (result.next <= connection->rcvNxt) return;
    moveReceived(connection, result.next);
    takeHeldFin(step);
}

// A number without a payload, which comes next.
void takeBareNumber(Step* step, const PeerAddress& source) {
    ReliableConnection* const connection = step->connection;
    const uint64_t number = step->packet->header.seq;
    moveReceived(connection, number + 1);
    if (connection->core->open) {
        ReassemblyResult result;
        reassemblyPass(&connection->reassembly, number, &result);
        deliver(*step, result, source);
        if (result.next > connection->rcvNxt) moveReceived(connection, result.next);
    }
    takeHeldFin(step);
}

// Answers

// The last message of a connection that closes, or of an endpoint that does, is acknowledged.
void closeIfDone(Step* step) {
    ReliableConnection* const connection = step->connection;
    const bool isFlushing = connection->core->flushing;
    if (!sendBufferIsEmpty(&connection->send)) return;
    if (connection->state != kCloseWait && !isFlushing) return;
    connectionSendFin(connection);
    connectionEnter(connection, kLastAck, step->call->now);
    if (!isFlushing) return;
    connection->isRunning = false;
    connectionEndFlush(connection, step->call->out);
}

void answer(Step* step) {
    ReliableConnection* const connection = step->connection;
    if (connectionHas(connection, kSendsData) && connectionSendWaiting(connection)) {
        step->ackIsDue = false;
    }
    if (step->ackIsDue) connectionSendAck(connection);
    if (connectionHas(connection, kSendsData)) return closeIfDone(step);

    const bool isBehindClose = connectionHas(connection, kSendReopens) &&
                               !sendBufferIsEmpty(&connection->send) &&
                               !connectionMustClose(connection);
    if (isBehindClose && !Connection_Restart(connection, *step->call, true)) {
        connectionTearDown(connection, EndReason::kLost, step->call->out);
    }
}

void takeAccepted(Step* step, const PeerAddress& source) {
    ReliableConnection* const connection = step->connection;
    const Packet& packet = *step->packet;
    const bool isNotice = (packet.header.flags & kFlagCloseNotice) != 0;
    if (connection->state == kSynReceived) {
        const StateRow& row = stateRow(kSynReceived, ackFacts(*step));
        perform(step, row);
        if (step->isOver) return;
    }
    if (isNotice && connection->core->flushing) {
        connection->isRunning = false;
        return connectionEndFlush(connection, step->call->out);
    }
    step->takesPayload =
        !packet.payload.empty() && connectionHas(connection, kTakesData) && connection->core->open;
    trackNumbers(step);
    runStates(step);
    if (connection->isClosed) return;
    if (step->takesPayload) takePayload(step, source);
    answer(step);
}

// Refusals

bool isAccepted(const ReliableConnection* connection, const Packet& packet) {
    const PacketHeader& header = packet.header;
    if (!takesNumber(packet) && ackIsInRange(connection, header)) return true;
    const bool isMore = takesNumber(packet) || (header.flags & kFlagCloseNotice) != 0;
    return isMore && isInWindow(connection, header);
}

// A packet that takes no number isn't answered: two ends would answer each other without end.
void refuse(ReliableConnection* connection, const PeerAddress& source, const Packet& packet) {
    const bool isAhead = packet.header.ack > connection->window.sndNxt;
    if (isAhead && connectionHas(connection, kSynUnderWay)) {
        return packetAnswerReset(connection->core, source, packet.header);
    }
    if (takesNumber(packet)) connectionSendAck(connection);
}

void takeReset(ReliableConnection* connection, const CoreCall& call, const PacketHeader& header) {
    if (header.destId != connection->localId || !isInWindow(connection, header)) return;
    if (!connection->core->open) {
        connection->isRunning = false;
        return connectionEndFlush(connection, call.out);
    }
    if (!sendBufferIsEmpty(&connection->send) && Connection_Restart(connection, call, false))
        return;
    connectionTearDown(connection, EndReason::kLost, call.out);
}

Step stepOf(ReliableConnection* connection, const CoreCall& call, const Packet& packet) {
    return {.connection = connection,
            .call = &call,
            .packet = &packet,
            .takesPayload = false,
            .inOrder = true,
            .finNow = false,
            .ackIsDue = false,
            .isOver = false};
}

// An answer to our SYN that isn't one: the peer repeats its SYN-ACK.
bool isAheadOfSynAck(const ReliableConnection* connection, const PacketHeader& header) {
    return connection->state == kSynSent && header.destId == connection->localId;
}

}  // namespace

bool connectionMustClose(const ReliableConnection* connection) {
    const bool peerMaySend = connection->state == kFinWait1 || connection->state == kFinWait2;
    return peerMaySend && connection->tookAfterFin && connection->core->open;
}

void connectionTakeLateSynAck(ReliableConnection* connection,
                              const CoreCall& call,
                              const PeerAddress& source,
                              const Packet& packet) {
    const PacketHeader& header = packet.header;
    const bool isOurs =
        header.destId == connection->localId && header.sourceId == connection->remoteId;
    if (!connection->isRunning || !isOurs || connection->state < kEstablished) return;
    connection->isIdle = false;
    Step step = stepOf(connection, call, packet);
    const bool isNext = header.seq == connection->rcvNxt && connectionHas(connection, kTakesData);
    if (isNext) takeBareNumber(&step, source);
    step.ackIsDue = true;
    if (!connection->isClosed) answer(&step);
}

void connectionTakePacket(ReliableConnection* connection,
                          const CoreCall& call,
                          const PeerAddress& source,
                          const Packet& packet) {
    if (!connection->isRunning) return;
    const PacketHeader& header = packet.header;
    if ((header.flags & kFlagRst) != 0) return takeReset(connection, call, header);
    if (isAheadOfSynAck(connection, header)) return;
    if (header.destId != connection->localId || header.sourceId != connection->remoteId) {
        return packetAnswerReset(connection->core, source, header);
    }
    connection->isIdle = false;
    if (!isAccepted(connection, packet)) return refuse(connection, source, packet);
    Step step = stepOf(connection, call, packet);
    takeAccepted(&step, source);
}
