#include "lib/transport/reliable/endpoint_harvest.h"

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
void addMessages(Harvest& harvest, uint32_t peerAddress, Dpa* messages) {
    if (harvest.deliveryCount != 0) {
        HarvestedMessages& last = harvest.deliveries[harvest.deliveryCount - 1];
        if (last.peerAddress == peerAddress && dpaAppendAll(last.messages, messages)) {
            dpaDestroy(messages);
            return;
        }
    }
    harvest.deliveries[harvest.deliveryCount++] = {peerAddress, messages};
}

void deliver(const HarvestedMessages& delivery, const HarvestCallbacks& callbacks) {
    Dpa* const messages = delivery.messages;
    if (callbacks.onData != nullptr) {
        callbacks.onData(delivery.peerAddress, messages, callbacks.closure);
    } else {
        for (uint32_t i = 0; i < messages->count; ++i)
            msgRelease(static_cast<pelmoMsg*>(messages->items[i]));
    }
    dpaDestroy(messages);
}

// The words are those of the two calls of old that sent and sent again.
void logFailure(const SendFailure& failure) {
    if (failure.error == 0) return;
    logPaced("%s: %s", failure.isRepeat ? "PacketResend" : "PacketSend",
             strerrordesc_np(failure.error));
}

}  // namespace

bool harvestHasRoom(const Harvest& harvest) {
    return harvest.deliveryCount < kHarvestPlaces &&
           harvest.lossCount + kMostLosses <= kHarvestPlaces;
}

void harvestTake(Harvest& harvest, const EndpointOutput& output) {
    if (output.messages != nullptr) addMessages(harvest, output.peer.address, output.messages);
    for (uint32_t i = 0; i < output.lossCount; ++i)
        harvest.losses[harvest.lossCount++] = output.losses[i];
    harvest.notices |= output.notices;
}

void harvestTell(Harvest& harvest, const HarvestCallbacks& callbacks) {
    for (uint32_t i = 0; i < harvest.deliveryCount; ++i)
        deliver(harvest.deliveries[i], callbacks);
    for (uint32_t i = 0; i < harvest.lossCount && callbacks.onLoss != nullptr; ++i) {
        const LossReport& loss = harvest.losses[i];
        callbacks.onLoss(loss.inbound, hostOrder32(loss.peer.address), hostOrder16(loss.peer.port),
                         loss.bytes, callbacks.closure);
    }
    for (const NoticeText& each : kNoticeTexts) {
        if ((harvest.notices & each.notice) != 0) {
            logPaced("direct port %u: %s", unsigned{callbacks.port}, each.text);
        }
    }
    logFailure(harvest.failure);
    harvest.deliveryCount = harvest.lossCount = harvest.notices = 0;
    harvest.failure = {};
}
