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

// When the batch is due: at a rate, at the times of its lines, or at once.
struct Timing {
    Pace pace;
    Replay replay;
    bool replays = false;
};

int64_t dueTime(Timing& timing, const Composer& composer) {
    return timing.replays ? replayDue(timing.replay, composer.time, steadyNow())
                          : paceDue(timing.pace);
}

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

pelmoStatus sendBatch(Batch& batch, const Composer& composer, Sender& sender, Timing& timing) {
    if (stopWait(-1, 0, dueTime(timing, composer)) == StopWait::kStop) return kStatusInterrupted;
    const std::span<pelmoMsg* const> messages(batch.messages.data(), batch.count);
    const bool isSingle = batch.count < 2 || composer.toInbox;
    const pelmoStatus status =
        isSingle ? senderSend(sender, messages) : senderSendTogether(sender, messages);
    const int64_t now = steadyNow();
    if (sender.waited) paceRestart(timing.pace, now);
    paceNext(timing.pace, now);
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

// "send", and where to if that is known.
std::string sendWords(const BusSettings& settings) {
    const char* to = settings.to;
    if (to == nullptr && !settings.subjects.empty()) to = settings.subjects[0];
    return to != nullptr ? std::string("send ") + to : "send";
}

ExitStatus endByStop(const BusSettings& settings, const Composer& composer, const Sender& sender) {
    if (isAllSent(composer, sender)) return kExitDone;
    const bool isKnown = composer.most != UINT64_MAX;
    const std::string number = isKnown ? std::to_string(composer.most - sender.sent) + " messages"
                                       : std::string("lines of the input");
    complain(sendWords(settings) + ": " + number + " not sent", kStatusInterrupted);
    return kExitFailed;
}

ExitStatus sendAll(const BusSettings& settings,
                   Composer& composer,
                   Sender& sender,
                   Timing& timing) {
    Batch batch;
    // Within the process nothing is gained by sending together.
    const bool isTimed = settings.rate > 0 || settings.pace;
    batch.most = settings.local || isTimed ? 1 : kMostTogether;
    if (isTimed) prctl(PR_SET_TIMERSLACK, kTimerSlackNanoseconds);

    ComposeResult result = ComposeResult::kMade;
    while (result == ComposeResult::kMade || result == ComposeResult::kNone) {
        result = fill(batch, composer, timing.pace);
        if (batch.count == 0) break;
        const uint64_t before = sender.sent;
        const pelmoStatus status = sendBatch(batch, composer, sender, timing);
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

// What the end says of lines. False where not all that they asked for could be sent.
bool reportLines(const std::string& what, const Composer& composer, const Replay& replay) {
    const auto say = [&what](const char* words, uint64_t count) {
        if (count != 0) complain(what + ": " + words + ": " + std::to_string(count));
    };
    say("reply subjects left out", composer.repliesLeftOut);
    say("times that went back by more than a second", replay.leaps);
    say("later than the lines say, in milliseconds",
        static_cast<uint64_t>(replay.putOff / kMillisecond));
    say("lines without a whole message skipped", composer.lacking);
    return composer.lacking == 0;
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
    const std::string what = sendWords(settings);
    Timing timing{.pace = paceStart(settings.rate, steadyNow()),
                  .replay = {.speed = settings.speed.value_or(1)},
                  .replays = settings.pace};
    SendWatch watch(connection.transport);
    ExitStatus ended = sendAll(settings, composer, sender, timing);
    watch.stop();
    if (watch.isLost) complain(what + ": not all has left", kStatusDeliveryFailed);
    if (!senderEnd(sender, connection, what) || watch.isLost) ended = kExitFailed;
    if (!reportLines(what, composer, timing.replay)) ended = kExitFailed;
    announce("sent " + std::to_string(sender.sent));
    return ended;
}
