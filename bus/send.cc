#include <sys/ioctl.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>

#include "bus/commands.h"
#include "bus/common.h"
#include "bus/composer.h"
#include "bus/connection.h"
#include "bus/measure.h"
#include "bus/sender.h"
#include "programs/stop.h"

namespace {

constexpr size_t kMostTogether = 64;
constexpr unsigned long kTimerSlackNanoseconds = 1;  // the system's own would be felt at high rates

// Messages on their way from the composer to the sender.
struct Batch {
    std::array<ComposerSlot, kMostTogether> slots;
    std::array<pelmoMsg*, kMostTogether> messages;
    size_t most = 1;
    size_t count = 0;
};

// Fills the batch with what is there. Waits for the first only, and then restarts the pace.
ComposeResult fill(Batch& batch, Composer& composer, Pace& pace) {
    ComposeResult result = ComposeResult::kMade;
    batch.count = 0;
    while (batch.count < batch.most) {
        ComposerSlot& slot = batch.slots[batch.count];
        result = composerNext(composer, slot, false);
        if (result == ComposeResult::kNone && batch.count == 0) {
            result = composerNext(composer, slot, true);
            const int64_t now = steadyNow();
            if (paceDue(pace) < now) paceRestart(pace, now);
        }
        if (result != ComposeResult::kMade) break;
        batch.messages[batch.count++] = slot.msg.get();
    }
    return result;
}

pelmoStatus sendBatch(Batch& batch, const Composer& composer, Sender& sender, Pace& pace) {
    if (stopWait(-1, 0, paceDue(pace)) == StopWait::kStop) return kStatusInterrupted;
    const std::span<pelmoMsg* const> messages(batch.messages.data(), batch.count);
    const bool isSingle = batch.count < 2 || composer.toInbox;
    const pelmoStatus status =
        isSingle ? senderSend(sender, messages) : senderSendTogether(sender, messages);
    const int64_t now = steadyNow();
    if (sender.waited) paceRestart(pace, now);
    paceNext(pace, now);
    return status;
}

std::string subjectWords(pelmoMsg* msg) {
    const char* subject = nullptr;
    const bool isKnown = pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess;
    return std::string("send ") + (isKnown ? subject : "");
}

// Was all sent that was asked for, as a signal ended it? Of lines, those that have come.
bool isAllSent(const Composer& composer, const Sender& sender) {
    if (composer.most != UINT64_MAX) return sender.sent == composer.most;
    int unread = 0;
    const bool isRead = ioctl(composer.input.descriptor, FIONREAD, &unread) != 0 || unread == 0;
    return sender.sent == composer.made && isRead;
}

ExitStatus endByStop(const BusSettings& settings, const Composer& composer, const Sender& sender) {
    if (isAllSent(composer, sender)) return kExitDone;
    const bool isKnown = composer.most != UINT64_MAX;
    const std::string number = isKnown ? std::to_string(composer.most - sender.sent) + " messages"
                                       : std::string("lines of the input");
    complain(std::string("send ") + settings.subjects[0] + ": " + number + " not sent",
             kStatusInterrupted);
    return kExitFailed;
}

ExitStatus sendAll(const BusSettings& settings, Composer& composer, Sender& sender) {
    Pace pace = paceStart(settings.rate, steadyNow());
    Batch batch;
    // Within the process nothing is gained by sending together.
    const bool isAlone = settings.local || settings.rate > 0;
    batch.most = isAlone ? 1 : kMostTogether;
    if (settings.rate > 0) prctl(PR_SET_TIMERSLACK, kTimerSlackNanoseconds);

    ComposeResult result = ComposeResult::kMade;
    while (result == ComposeResult::kMade || result == ComposeResult::kNone) {
        result = fill(batch, composer, pace);
        if (batch.count == 0) break;
        const uint64_t before = sender.sent;
        const pelmoStatus status = sendBatch(batch, composer, sender, pace);
        if (status == kStatusInterrupted) return endByStop(settings, composer, sender);
        if (status != kStatusSuccess) {
            const size_t place = std::min<size_t>(sender.sent - before, batch.count - 1);
            complain(subjectWords(batch.messages[place]), status);
            return kExitFailed;
        }
    }
    if (result == ComposeResult::kStopped) return endByStop(settings, composer, sender);
    return result == ComposeResult::kFailed ? kExitFailed : kExitDone;
}

// All of the input's lines, or so many of them; one message otherwise.
uint64_t mostMessages(const BusSettings& settings) {
    const bool readsLines = settings.lines || settings.json;
    return settings.count.value_or(readsLines ? UINT64_MAX : 1);
}

}  // namespace

ExitStatus runSend(const BusSettings& settings) {
    Composer composer = composerOpen(settings, mostMessages(settings));
    Connection connection;
    const ExitStatus made = connectionOpen(connection, settings, true);
    if (made != kExitDone) return made;
    Sender sender{connection.transport, settings.wait};
    const std::string what = std::string("send ") + settings.subjects[0];
    SendWatch watch(connection.transport);
    ExitStatus ended = sendAll(settings, composer, sender);
    watch.stop();
    if (watch.isLost) complain(what + ": not all has left", kStatusDeliveryFailed);
    if (!senderEnd(sender, connection, what) || watch.isLost) ended = kExitFailed;
    announce("sent " + std::to_string(sender.sent));
    return ended;
}
