#include "bus/intake.h"

#include <ctime>

#include "bus/common.h"
#include "programs/steady_time.h"
#include "programs/text.h"

namespace {

pelmoStatus addTextLine(pelmoMsg* msg, std::string& out) {
    const char* subject = nullptr;
    const char* reply = nullptr;
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    if (status != kStatusSuccess) return status;
    if (pelmoMsg_GetSendSubject(msg, &subject) == kStatusSuccess) {
        plainTextAdd(out, subject);
        out += ' ';
    }
    if (pelmoMsg_GetReplySubject(msg, &reply) == kStatusSuccess) {
        out += "reply=";
        plainTextAdd(out, reply);
        out += ' ';
    }
    plainTextAdd(out, text);
    return kStatusSuccess;
}

pelmoStatus addJsonLine(pelmoMsg* msg, std::string& out) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    char time[kUtcTextBytes];
    return jsonWriteMessage(msg, utcText(now.tv_sec, static_cast<uint32_t>(now.tv_nsec), time),
                            out);
}

}  // namespace

void printerOpen(Printer& printer, const BusSettings& settings) {
    printer.json = settings.json;
    printer.quiet = settings.quiet;
    outputOpen(printer.output);
}

bool printerTake(Printer& printer, pelmoMsg* msg) {
    ++printer.count;
    if (printer.quiet) return true;
    std::string& out = printer.output.text;
    const pelmoStatus status = printer.json ? addJsonLine(msg, out) : addTextLine(msg, out);
    if (status != kStatusSuccess) {
        complain("message " + std::to_string(printer.count), status);
        return true;
    }
    out += '\n';
    return outputLine(printer.output);
}

bool printerClose(Printer& printer) {
    if (printer.quiet) announce("received " + std::to_string(printer.count));
    return outputFlush(printer.output);
}

namespace {

void take(Intake& intake, pelmoMsg* msg) {
    if (!printerTake(intake.printer, msg)) return;
    if (intake.onMessage != nullptr) intake.onMessage(intake, msg);
    intake.done = intake.settings.count && intake.printer.count >= *intake.settings.count;
}

void onMessage(uint32_t, pelmoMsg* msg, void* closure) {
    auto& intake = *static_cast<Intake*>(closure);
    pumpGuard(intake.pump, [&] { take(intake, msg); });
}

ExitStatus endStatus(PumpEnd end, const BusSettings& settings) {
    if (end == PumpEnd::kFailed) return kExitFailed;
    return end == PumpEnd::kTime && settings.count ? kExitUnanswered : kExitDone;
}

}  // namespace

ExitStatus intakeRun(Intake& intake) {
    const BusSettings& settings = intake.settings;
    const ExitStatus made = connectionOpen(intake.connection, settings);
    if (made != kExitDone) return made;
    printerOpen(intake.printer, settings);
    if (!pumpOpen(intake.pump, &intake.printer.output)) return kExitFailed;
    const int64_t now = steadyNow();
    const int64_t until = settings.seconds ? steadyAfter(now, *settings.seconds) : kNever;
    intake.done = settings.count && *settings.count == 0;
    for (const char* subject : settings.subjects) {
        if (!pumpListen(intake.pump, intake.connection.transport, subject, onMessage, &intake)) {
            return kExitFailed;
        }
    }
    pumpAnnounce(intake.pump, intake.connection.transport, settings.subjects);

    const ExitStatus ended = endStatus(pumpRun(intake.pump, intake.done, until), settings);
    if (intake.pump.failure != kStatusSuccess) complain("listen", intake.pump.failure);
    return printerClose(intake.printer) ? ended : kExitFailed;
}
