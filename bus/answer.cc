#include "bus/commands.h"
#include "bus/complain.h"
#include "bus/composer.h"
#include "bus/intake.h"

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
