// The end by a signal: SIGINT, SIGTERM, and SIGHUP unless it was ignored at the start, ask the
// program to end in order. Whatever waits, waits for this too.
//
// A second signal, some two seconds later, has its default action and ends a process that hangs.
// SIGPIPE does nothing: a write to a pipe without a reader answers EPIPE.
//
// The request is a flag and a byte in a pair of sockets, both once per process.
//
// Threads: any.

#pragma once

#include <cstdint>

#include "lib/pelmo.h"

// Once. kStatusOsError where the pair can't be made.
[[nodiscard]] pelmoStatus stopInstall();

[[nodiscard]] bool stopRequested();

// Readable from the request on.
[[nodiscard]] int stopDescriptor();

// Waits until the descriptor is ready for the events of poll(), the time has come (kNever: without
// end; 0: past), or the request. A descriptor below 0 is never ready.
enum class StopWait { kReady, kTime, kStop };
[[nodiscard]] StopWait stopWait(int descriptor, short events, int64_t until);

// How a signal ends the process while a call runs that can't be interrupted and that leaves nothing
// behind.
struct StopAtOnce {
    int status;
    const char* text;  // for the standard error stream, a constant
};

// Null: it doesn't. The record stays until then.
void stopEndsAtOnce(const StopAtOnce* end);
