// What a connection sends. A header is stamped again each time that its packet leaves, so that
// every packet acknowledges what has come by then.

#include "lib/msg/buffer.h"
#include "lib/transport/reliable/connection_internal.h"

namespace {

void sendDatagram(EndpointCore* core,
                  const PeerAddress& to,
                  const PacketHeader& header,
                  const OutPacket* data,
                  bool isRepeat) {
    uint8_t head[kMostHeadBytes];
    const bool isFragment = data != nullptr && data->isFragment;
    const uint32_t headBytes =
        packetWriteHead(head, header, isFragment ? &data->fragment : nullptr);
    OutDatagram datagram = {
        .head = {head, headBytes}, .payload = {}, .buffer = nullptr, .isRepeat = isRepeat};
    if (data != nullptr) {
        datagram.buffer = data->buffer;
        datagram.payload = {data->buffer->data + data->offset, data->length};
    }
    ++core->counts.packetsSent;
    if (isRepeat) ++core->counts.packetsResent;
    core->sink.send(core->sink.closure, to, datagram);
}

PacketHeader stamp(const ReliableConnection* connection, uint64_t seq, uint8_t flags) {
    const uint8_t notice = connection->core->flushing ? kFlagCloseNotice : 0;
    return {.sourceId = connection->localId,
            .destId = connection->remoteId,
            .seq = seq,
            .ack = connection->rcvNxt,
            .flags = static_cast<uint8_t>(flags | notice),
            .window = kReceiveWindow};
}

void sendData(ReliableConnection* connection, OutPacket* packet, bool isRepeat) {
    packet->header = stamp(connection, packet->header.seq, 0);
    sendDatagram(connection->core, connection->peerAddress, packet->header, packet, isRepeat);
}

void sendBare(ReliableConnection* connection, uint64_t seq, uint8_t flags, bool isRepeat) {
    const PacketHeader header = stamp(connection, seq, flags);
    sendDatagram(connection->core, connection->peerAddress, header, nullptr, isRepeat);
}

void sendReset(EndpointCore* core, const PeerAddress& to, uint32_t destId, uint64_t seq) {
    const PacketHeader header = {.sourceId = 0,
                                 .destId = destId,
                                 .seq = seq,
                                 .ack = 0,
                                 .flags = kFlagRst,
                                 .window = kReceiveWindow};
    sendDatagram(core, to, header, nullptr, false);
}

}  // namespace

void PacketSend(ReliableConnection* connection, OutPacket* packet) {
    sendData(connection, packet, false);
}

void PacketResend(ReliableConnection* connection, OutPacket* packet) {
    sendData(connection, packet, true);
}

void connectionSendControl(ReliableConnection* connection, bool isRepeat) {
    const uint8_t flag = connectionHas(connection, kSynUnderWay) ? kFlagSyn : kFlagFin;
    sendBare(connection, connection->window.sndNxt - 1, flag, isRepeat);
}

void connectionSendCrossing(ReliableConnection* connection) {
    sendBare(connection, connection->crossSeq, kFlagSyn, true);
}

void connectionSendFin(ReliableConnection* connection) {
    sendBare(connection, connection->window.sndNxt++, kFlagFin, false);
}

void connectionSendAck(ReliableConnection* connection) {
    sendBare(connection, connection->window.sndNxt - 1, 0, false);
}

void connectionSendReset(ReliableConnection* connection, uint64_t seq) {
    sendReset(connection->core, connection->peerAddress, connection->remoteId, seq);
}

void packetAnswerReset(EndpointCore* core, const PeerAddress& to, const PacketHeader& header) {
    sendReset(core, to, header.sourceId, header.ack);
}

bool connectionSendWaiting(ReliableConnection* connection) {
    SendWindow* const window = &connection->window;
    const uint64_t first = window->sndNxt;
    while (windowIsOpen(window)) {
        OutPacket* const packet = sendBufferNext(&connection->send, window->sndNxt);
        if (packet == nullptr) break;
        ++window->sndNxt;
        PacketSend(connection, packet);
    }
    return window->sndNxt != first;
}

pelmoStatus connectionSend(ReliableConnection* connection,
                           const CoreCall& call,
                           std::span<pelmoMsg* const> messages,
                           bool delaySmall) {
    const bool isNew = connection->state == kListen;
    const pelmoStatus status = sendBufferAdd(&connection->send, messages, delaySmall);
    if (status != kStatusSuccess) {
        if (isNew) connectionTearDown(connection, EndReason::kUnused, call.out);
        return status;
    }
    // What the peer opened is from now on this side's as well.
    connectionLeaveHalfOpen(connection);
    if (connectionHas(connection, kSendReopens) && !connectionMustClose(connection)) {
        if (!Connection_Restart(connection, call, true)) {
            sendBufferClear(&connection->send);
            connectionTearDown(connection, EndReason::kLost, call.out);
            return kStatusNoMemory;
        }
    }
    if (connectionHas(connection, kSendsData)) (void)connectionSendWaiting(connection);
    return kStatusSuccess;
}
