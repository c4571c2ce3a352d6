// The standard output: lines that leave at once for a terminal, and otherwise when much has
// gathered or nothing new has come for a moment.
//
//     output.text += line;
//     if (!outputLine(output)) return 1;
//     ...
//     outputFlush(output)    // at the time outputDue
//
// Failure: what can't be written is reported once on the standard error stream, and everything
// after it is dropped: a reader that has gone, a full disk.
//
// A reader that takes nothing is waited for, until a signal asks for the end; from then on for
// kLastWaitSeconds in all.
//
// Threads: one user at a time.

#pragma once

#include <cstdint>
#include <string>

constexpr int kLastWaitSeconds = 1;

struct Output {
    std::string text;  // lines that haven't left

    // Constant once opened.
    int descriptor = 1;
    bool isTerminal = false;
    bool isFile = false;

    int64_t since = 0;  // when the first of the lines came
    bool failed = false;
};

void outputOpen(Output& output);

// After each line. False where writing has failed, now or before.
[[nodiscard]] bool outputLine(Output& output);

// When the lines are to leave, on the steady clock; kNever if there are none.
[[nodiscard]] int64_t outputDue(const Output& output);
bool outputFlush(Output& output);
