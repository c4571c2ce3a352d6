// Messages as lines on the standard output: the library's text, JSON, or nothing but their number.
//
//     SUBJECT [reply=SUBJECT ]{TEXT}
//
// Control characters in the library's text are escaped, so that each message stays one line and
// plays no tricks on a terminal.
//
// Failure: a message that can't be shown is told and skipped; for what can't be written, see
// output.h.

#pragma once

#include <cstdint>

#include "bus/json_writer.h"
#include "bus/output.h"
#include "bus/settings.h"

struct Printer {
    bool json = false;
    bool quiet = false;
    Output output;
    JsonWriter writer;
    uint64_t count = 0;  // of messages, shown or not
};

void printerOpen(Printer& printer, const BusSettings& settings);

// False where writing has failed, now or before.
[[nodiscard]] bool printerTake(Printer& printer, pelmoMsg* msg);

// Writes what hasn't left; tells the number where that is all that was asked for. False as above.
[[nodiscard]] bool printerClose(Printer& printer);
