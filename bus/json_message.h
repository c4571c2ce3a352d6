// Messages from JSON in the form of json_writer.h.
//
// Strict: keys that nobody knows, keys twice, values that don't fit their type are refused. Keys
// come in any order. "name" may also be null, and "value" of a "none" be left out.
//
// What can't be sent: arrays without elements, documents without a byte, and types below 128 that
// the library has no encoder for.
//
// Threads: one user at a time.

#pragma once

#include <string>
#include <string_view>

#include "bus/json_tape.h"
#include "lib/pelmo.h"

struct JsonReader {
    JsonTape tape;
    std::string words;  // of the value at hand

    // Behind a read that succeeded. Empty where the line has none.
    std::string subject;
    std::string reply;

    // Behind a read that failed: "column 7: what is wrong".
    std::string fault;
};

// Adds the line's fields to the message, and leaves setting its subjects to the caller. False where
// the line isn't such a message; the message may then have some of the fields.
[[nodiscard]] bool jsonReadMessage(JsonReader& reader, std::string_view line, pelmoMsg* msg);
