// Messages as lines on the standard output: the library's text, JSON, or nothing but their number.
//
//     SUBJECT [reply=SUBJECT ]{TEXT}
//
// Control characters in the library's text are escaped, so that each message stays one line and
// plays no tricks on a terminal. JSON has the time at which the message was taken.
//
// Failure: a message that can't be shown is reported and skipped; for what can't be written, see
// output.h.

#pragma once

#include <cstdint>

#include "bus/connection.h"
#include "bus/output.h"
#include "bus/pump.h"
#include "bus/settings.h"
#include "programs/message_json.h"

struct Printer {
    bool json = false;
    bool quiet = false;
    Output output;
    uint64_t count = 0;  // of messages, shown or not
};

void printerOpen(Printer& printer, const BusSettings& settings);

// False where writing has failed, now or before.
[[nodiscard]] bool printerTake(Printer& printer, pelmoMsg* msg);

// Writes what hasn't left; prints the number if only that was asked for. False as above.
[[nodiscard]] bool printerClose(Printer& printer);

// What the commands that listen have in common: a listener on each subject, each message printed
// and counted, and the end by number, time or signal.

struct Intake {
    const BusSettings& settings;
    Connection connection = {};
    Printer printer = {};
    Pump pump = {};  // ends before the connection
    bool done = false;

    // Called for each message once it is printed; may be null.
    void (*onMessage)(Intake& intake, pelmoMsg* msg) = nullptr;
    void* closure = nullptr;
};

[[nodiscard]] ExitStatus intakeRun(Intake& intake);
