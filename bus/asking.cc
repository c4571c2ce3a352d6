#include "bus/asking.h"

namespace {

struct Inbox {
    uint32_t event = kNoId;
    OwnedMessage answer;
    bool done = false;

    Inbox() = default;
    ~Inbox() {
        if (event != kNoId) pelmoEvent_DestroyEx(event, nullptr);
    }
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;
};

void onAnswer(uint32_t, pelmoMsg* msg, void* closure) {
    auto& inbox = *static_cast<Inbox*>(closure);
    if (inbox.done || pelmoMsg_Detach(msg) != kStatusSuccess) return;
    inbox.answer.reset(msg);
    inbox.done = true;
}

}  // namespace

pelmoStatus askFor(
    Pump& pump, Sender& sender, pelmoMsg* request, int64_t until, OwnedMessage& answer) {
    char subject[kMostInboxBytes];
    Inbox inbox;
    pelmoStatus status = pelmoTransport_CreateInbox(sender.transport, subject, sizeof subject);
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&inbox.event, pump.queue, onAnswer, sender.transport,
                                           subject, &inbox);
    }
    if (status == kStatusSuccess) status = pelmoMsg_SetReplySubject(request, subject);
    if (status == kStatusSuccess) status = senderSend(sender, {&request, 1});
    if (status != kStatusSuccess) return status;

    switch (pumpRun(pump, inbox.done, until)) {
        case PumpEnd::kDone:
            answer = std::move(inbox.answer);
            return kStatusSuccess;
        case PumpEnd::kTime:
            return kStatusTimeout;
        case PumpEnd::kStopped:
            return kStatusInterrupted;
        case PumpEnd::kFailed:
            break;
    }
    return kStatusIoFailed;
}
