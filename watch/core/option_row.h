// Options as data: a form has a table of its own, the source has one that all forms share, and the
// parser and the help texts come from both (watch/core/options.h).
//
//     {"-u,--interval", "SECONDS", "time between two snapshots [10]", storeInterval}
//
// A long name may stand behind one dash too, as the tool's own options do, where it is listed so
// ("-addr,--addr"). A repeated option overwrites, unless its store collects.
//
// Ownership: values last as long as the process.
//
// Threads: start-up only.

#pragma once

struct OptionRow {
    const char* names;      // with commas between
    const char* valueWord;  // null for a switch
    const char* help;

    // Takes each value as it was typed, and null for a switch. Returns null, or what is wrong with
    // the value in words that follow it: "isn't a whole number".
    const char* (*store)(const char* value);
};

// The value as a whole number from `least` to `most`, or words as above.
[[nodiscard]] const char* optionNumber(const char* value,
                                       unsigned long long least,
                                       unsigned long long most,
                                       unsigned long long* out);
