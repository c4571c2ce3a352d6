#include "bus/pump.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "bus/common.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

namespace {

// It has woken the loop, which looks for itself.
void onStop(uint32_t, pelmoMsg*, void*) {}

constexpr int64_t kMostDaemonTime = kSecond;

void onReturn(uint32_t, pelmoMsg*, void* closure) {
    *static_cast<bool*>(closure) = true;
}

// An inbox that the daemon alone brings messages to. Those of a transport with a port of its own
// are reached without it, but for the ones of daemons: "_INBOX.ADDRESS.DAEMON. ...". The rest of
// one of our own inboxes makes the name ours.
bool makeProbeInbox(uint32_t transport, char (&out)[kMostInboxBytes]) {
    char own[kMostInboxBytes];
    if (pelmoTransport_CreateInbox(transport, own, sizeof own) != kStatusSuccess) return false;
    const std::string_view text(own);
    const size_t id = text.find('.', text.find('.') + 1);
    const size_t rest =
        id == std::string_view::npos ? std::string_view::npos : text.find('.', id + 1);
    if (rest == std::string_view::npos) return false;
    const int size =
        std::snprintf(out, sizeof out, "%.*s.DAEMON%s", static_cast<int>(id), own, own + rest);
    return size > 0 && static_cast<size_t>(size) < sizeof out;
}

// The daemon has no room for more of what we listen to.
void onRefusal(uint32_t, pelmoMsg* msg, void* closure) {
    auto& pump = *static_cast<Pump*>(closure);
    pumpGuard(pump, [&] {
        const char* subject = nullptr;
        if (pelmoMsg_GetString(msg, "subject", &subject, 0) != kStatusSuccess) return;
        if (subject == nullptr || !pump.refused.insert(subject).second) return;
        complain(std::string("listen ") + subject + ": refused by the daemon");
    });
}

// On the pump's own queue: a refusal is there before the probe that was sent after the interest.
pelmoStatus hearRefusals(Pump& pump, uint32_t transport) {
    if (pump.hearsRefusals || transport == kIntraProcessTransportId) return kStatusSuccess;
    pump.hearsRefusals = true;
    pump.events.push_back(kNoId);
    return pelmoEvent_CreateListener(&pump.events.back(), pump.queue, onRefusal, transport,
                                     "_PM.WARN.SYSTEM.INTEREST.REFUSED", &pump);
}

void awaitDaemon(Pump& pump, uint32_t transport) {
    char inbox[kMostInboxBytes];
    uint32_t event = kNoId;
    bool isBack = false;
    const OwnedMessage msg = messageMake();
    if (makeProbeInbox(transport, inbox) &&
        pelmoEvent_CreateListener(&event, pump.queue, onReturn, transport, inbox, &isBack) ==
            kStatusSuccess &&
        pelmoMsg_SetSendSubject(msg.get(), inbox) == kStatusSuccess &&
        pelmoTransport_Send(transport, msg.get()) == kStatusSuccess) {
        // Any other end is noticed again by the next run of the pump.
        static_cast<void>(pumpRun(pump, isBack, steadyNow() + kMostDaemonTime));
    }
    if (event != kNoId) pelmoEvent_DestroyEx(event, nullptr);
}

}  // namespace

bool pumpOpen(Pump& pump, Output* output) {
    pump.output = output;
    pelmoStatus status = pelmoQueue_Create(&pump.queue);
    if (status == kStatusSuccess) {
        pump.stopCopy = fcntl(stopDescriptor(), F_DUPFD_CLOEXEC, 0);
        pump.events.push_back(kNoId);
        status = pelmoEvent_CreateIO(&pump.events.back(), pump.queue, onStop, pump.stopCopy,
                                     kIoRead, nullptr);
    }
    if (status != kStatusSuccess) complain("queue", status);
    return status == kStatusSuccess;
}

bool pumpListen(Pump& pump,
                uint32_t transport,
                const char* subject,
                pelmoEventCallback callback,
                void* closure) {
    pelmoStatus status = hearRefusals(pump, transport);
    pump.events.push_back(kNoId);
    if (status == kStatusSuccess) {
        status = pelmoEvent_CreateListener(&pump.events.back(), pump.queue, callback, transport,
                                           subject, closure);
    }
    if (status != kStatusSuccess) {
        complain(std::string("listen ") + subject, status);
        return false;
    }
    return true;
}

void pumpAnnounce(Pump& pump, uint32_t transport, std::span<const char* const> subjects) {
    if (transport != kIntraProcessTransportId) awaitDaemon(pump, transport);
    for (const char* subject : subjects) {
        if (!pump.refused.contains(subject)) announce(std::string("listening on ") + subject);
    }
}

PumpEnd pumpRun(Pump& pump, const bool& done, int64_t until) {
    for (;;) {
        if (pump.failure != kStatusSuccess || pump.output->failed) return PumpEnd::kFailed;
        if (done) return PumpEnd::kDone;
        if (stopRequested()) return PumpEnd::kStopped;
        const int64_t now = steadyNow();
        const int64_t due = outputDue(*pump.output);
        if (due <= now) {
            outputFlush(*pump.output);
            continue;
        }
        if (until <= now) return PumpEnd::kTime;

        const int64_t next = std::min(due, until);
        const double seconds = next == kNever ? -1 : steadySeconds(next - now);
        const pelmoStatus status = pelmoQueue_TimedDispatch(pump.queue, seconds);
        if (status == kStatusSuccess || status == kStatusTimeout) continue;
        complain("dispatch", status);
        return PumpEnd::kFailed;
    }
}

Pump::~Pump() {
    for (const uint32_t event : events) {
        if (event != kNoId) pelmoEvent_DestroyEx(event, nullptr);
    }
    if (stopCopy >= 0) close(stopCopy);
    if (queue != kNoId) pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}
