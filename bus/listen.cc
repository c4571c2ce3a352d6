#include "bus/commands.h"
#include "bus/intake.h"

ExitStatus runListen(const BusSettings& settings) {
    Intake intake{.settings = settings};
    return intakeRun(intake);
}
