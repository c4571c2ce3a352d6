#include "lib/transport/reliable/endpoint_events.h"

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/base/log_pace.h"
#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"

namespace {

struct NoticeText {
    EndpointNotice notice;
    const char* text;
};
constexpr NoticeText kNoticeTexts[] = {
    {kNoticeHalfOpen, "too many connections are half open, the oldest was dropped"},
    {kNoticePeerReassembly, "a peer's unfinished messages are too many, one was given up"},
    {kNoticeEndpointReassembly, "unfinished messages of all peers are too many, one was given up"},
};

// One callback for all that a peer sent, as far as memory allows.
void addMessages(EndpointEvents& events, uint32_t peerAddress, Dpa* messages) {
    if (events.deliveryCount != 0) {
        PeerMessages& last = events.deliveries[events.deliveryCount - 1];
        if (last.peerAddress == peerAddress && dpaAppendAll(last.messages, messages)) {
            dpaDestroy(messages);
            return;
        }
    }
    events.deliveries[events.deliveryCount++] = {peerAddress, messages};
}

void deliver(const PeerMessages& delivery, const EndpointCallbacks& callbacks) {
    Dpa* const messages = delivery.messages;
    if (callbacks.onData != nullptr) {
        callbacks.onData(delivery.peerAddress, messages, callbacks.closure);
    } else {
        for (uint32_t i = 0; i < messages->count; ++i)
            msgRelease(static_cast<pelmoMsg*>(messages->items[i]));
    }
    dpaDestroy(messages);
}

// These names are part of the log format: a first send, and a repeated one.
void logFailure(const SendFailure& failure) {
    if (failure.error == 0) return;
    logPaced("%s: %s", failure.isRepeat ? "PacketResend" : "PacketSend",
             strerrordesc_np(failure.error));
}

}  // namespace

bool endpointEventsHaveRoom(const EndpointEvents& events) {
    return events.deliveryCount < kMostEndpointEvents &&
           events.lossCount + kMostLosses <= kMostEndpointEvents;
}

void endpointEventsAdd(EndpointEvents& events, const EndpointOutput& output) {
    if (output.messages != nullptr) addMessages(events, output.peer.address, output.messages);
    for (uint32_t i = 0; i < output.lossCount; ++i)
        events.losses[events.lossCount++] = output.losses[i];
    events.notices |= output.notices;
}

void endpointEventsDeliver(EndpointEvents& events, const EndpointCallbacks& callbacks) {
    for (uint32_t i = 0; i < events.deliveryCount; ++i)
        deliver(events.deliveries[i], callbacks);
    for (uint32_t i = 0; i < events.lossCount && callbacks.onLoss != nullptr; ++i) {
        const LossReport& loss = events.losses[i];
        callbacks.onLoss(loss.inbound, hostOrder32(loss.peer.address), hostOrder16(loss.peer.port),
                         loss.bytes, callbacks.closure);
    }
    for (const NoticeText& each : kNoticeTexts) {
        if ((events.notices & each.notice) != 0) {
            logPaced("direct port %u: %s", unsigned{callbacks.port}, each.text);
        }
    }
    logFailure(events.failure);
    events.deliveryCount = events.lossCount = events.notices = 0;
    events.failure = {};
}
