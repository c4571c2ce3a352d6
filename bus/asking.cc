#include "bus/asking.h"

#include "bus/commands.h"
#include "bus/common.h"
#include "bus/composer.h"
#include "bus/connection.h"
#include "bus/intake.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

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

namespace {

constexpr double kWaitSeconds = 10;

struct Asker {
    const BusSettings& settings;
    Composer composer;
    Printer& printer;
    Pump& pump;
    Sender sender;
    ComposerSlot slot = {};
};

ExitStatus failed(const BusSettings& settings, pelmoStatus status) {
    if (status == kStatusInterrupted) return kExitDone;
    if (status == kStatusIoFailed) return kExitFailed;  // it has been reported
    complain(std::string("request ") + settings.subjects[0], status);
    return status == kStatusTimeout ? kExitUnanswered : kExitFailed;
}

ExitStatus askAll(Asker& asker) {
    const double waitSeconds = asker.settings.seconds.value_or(kWaitSeconds);
    for (;;) {
        if (stopRequested()) return kExitDone;
        const ComposeResult result = composerNext(asker.composer, asker.slot, true);
        if (result == ComposeResult::kFailed) return kExitFailed;
        if (result != ComposeResult::kMade) return kExitDone;

        OwnedMessage answer;
        const int64_t until = steadyAfter(steadyNow(), waitSeconds);
        const pelmoStatus status =
            askFor(asker.pump, asker.sender, asker.slot.msg.get(), until, answer);
        if (status != kStatusSuccess) return failed(asker.settings, status);
        if (!printerTake(asker.printer, answer.get())) return kExitFailed;
    }
}

}  // namespace

ExitStatus runRequest(const BusSettings& settings) {
    // The option is about what is printed here.
    BusSettings composed = settings;
    composed.json = false;
    Connection connection;
    const ExitStatus made = connectionOpen(connection, settings, true);
    if (made != kExitDone) return made;
    Printer printer;
    Pump pump;
    printerOpen(printer, settings);
    if (!pumpOpen(pump, &printer.output)) return kExitFailed;
    Asker asker{settings, composerOpen(composed, settings.count.value_or(1)), printer, pump,
                Sender{connection.transport, settings.wait}};
    const ExitStatus ended = askAll(asker);
    return printerClose(printer) ? ended : kExitFailed;
}

namespace {

struct Answerer {
    Composer composer;
    OwnedMessage own = {};  // used again for each answer of the command line's fields
};

// A copy of the request, or the command line's fields. `copy` holds what isn't used again.
pelmoStatus makeAnswer(Answerer& answerer, pelmoMsg* request, OwnedMessage& copy, pelmoMsg** out) {
    const std::vector<TextField>& fields = answerer.composer.settings.fields;
    pelmoStatus status = kStatusSuccess;
    if (fields.empty()) {
        status = pelmoMsg_CreateCopy(request, out);
        if (status == kStatusSuccess) copy.reset(*out);
    } else {
        if (answerer.own == nullptr) answerer.own = messageMake();
        *out = answerer.own.get();
        pelmoMsg_Reset(*out);
        const TextField* fault = nullptr;
        status = textFieldsAdd(*out, fields, &fault);
    }
    return status == kStatusSuccess ? composerAddExtras(answerer.composer, *out) : status;
}

void answerOne(Intake& intake, pelmoMsg* request) {
    auto& answerer = *static_cast<Answerer*>(intake.closure);
    const char* reply = nullptr;
    if (pelmoMsg_GetReplySubject(request, &reply) != kStatusSuccess) return;
    OwnedMessage copy;
    pelmoMsg* answer = nullptr;
    pelmoStatus status = makeAnswer(answerer, request, copy, &answer);
    if (status == kStatusSuccess) {
        status = pelmoTransport_SendReply(intake.connection.transport, answer, request);
    }
    if (status != kStatusSuccess) return complain(std::string("answer ") + reply, status);
    ++answerer.composer.made;
}

}  // namespace

ExitStatus runAnswer(const BusSettings& settings) {
    Answerer answerer{composerOpen(settings, UINT64_MAX)};
    Intake intake{.settings = settings};
    intake.onMessage = answerOne;
    intake.closure = &answerer;
    return intakeRun(intake);
}

ExitStatus runListen(const BusSettings& settings) {
    Intake intake{.settings = settings};
    return intakeRun(intake);
}
