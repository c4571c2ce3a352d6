#include "bus/intake.h"

#include "bus/complain.h"
#include "programs/steady_time.h"

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
