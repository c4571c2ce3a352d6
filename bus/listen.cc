#include "bus/intake.h"
#include "bus/run_commands.h"

ExitStatus runListen(const BusSettings& settings) {
    Intake intake{.settings = settings};
    return intakeRun(intake);
}
