// A run of the program from entry to exit status: options, source, rights, form, and the end.
//
// A live run hands a Snapshot to the form at each interval until it is stopped; an offline one at
// each interval of the packets' own time, and the last, partial one, until the capture ends or it
// is stopped.
//
// Threads: the main thread.

#pragma once

#include <span>

#include "watch/core/form.h"

// The result is the exit status: 0, 1 where something failed or a saved capture was cut off, 2 for
// a bad command line, a bad filter among it.
[[nodiscard]] int watchMain(int argc, char** argv, std::span<const Form* const> forms);
