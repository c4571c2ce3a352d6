// A run of the tool from entry to exit status: what is opened in which order, the two run modes,
// and the order of closing.
//
//     log, capture source, capture file, filter, library, timers, capture thread
//     capture thread, capture file, log, library
//
// The mode is fixed by the command line: a live run captures from an interface until a signal stops
// it, an offline run reads a saved capture to its end.
//
// Threads: the main thread.

#pragma once

#include "lib/base/status.h"

// The result is the exit status: 0, or 1 when start-up failed or the end was marked
// (trace/run/run_end.h). A bad command line ends the process with 2, secure modules that can't
// be bound end it with 1.
[[nodiscard]] int traceMain(int argc, char** argv);

// The first failure ends start-up. Nothing is closed on this road; the end of the process takes
// what was opened.
[[nodiscard]] pelmoStatus startTrace();

void stopTrace();
