#include "bus/asking.h"
#include "bus/commands.h"
#include "bus/complain.h"
#include "bus/composer.h"
#include "bus/connection.h"
#include "bus/printer.h"
#include "programs/steady_time.h"
#include "programs/stop.h"

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
    if (status == kStatusIoFailed) return kExitFailed;  // it has been told
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
