// What the commands that listen have in common: a listener on each subject, each message printed
// and counted, and the end by number, time or signal.

#pragma once

#include "bus/connection.h"
#include "bus/printer.h"
#include "bus/pump.h"

struct Intake {
    const BusSettings& settings;
    Connection connection = {};
    Printer printer = {};
    Pump pump = {};  // ends ahead of the connection
    bool done = false;

    // Called for each message once it is printed; may be null.
    void (*onMessage)(Intake& intake, pelmoMsg* msg) = nullptr;
    void* closure = nullptr;
};

[[nodiscard]] ExitStatus intakeRun(Intake& intake);
