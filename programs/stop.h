// The end by a signal: SIGINT, SIGTERM, and SIGHUP unless it was ignored at the start, ask the
// program to end in order. Everything that waits, waits for this too.
//
// A second signal, some two seconds later, has its default action and ends a process that hangs.
//
// The request is a flag and a byte in a pair of sockets, both once per process.
//
// Threads: any.

#pragma once

#include <cstdint>

#include "lib/pelmo.h"

// Once. kStatusOsError if the pair can't be made.
[[nodiscard]] pelmoStatus stopInstall();

[[nodiscard]] bool stopRequested();

// Readable once the end is requested.
[[nodiscard]] int stopDescriptor();

// Waits until the descriptor is ready for the events of poll(), the time has come (kNever: without
// limit; 0: past), or the end is requested. A descriptor below 0 is never ready.
enum class StopWait { kReady, kTime, kStop };
[[nodiscard]] StopWait stopWait(int descriptor, short events, int64_t until);

// How a signal ends the process during a call that can't be interrupted and leaves nothing to clean
// up.
struct StopAtOnce {
    int status;
    const char* text;  // for the standard error stream, a constant
};

// Null: signals only request the end again. The record is borrowed until then.
void stopEndsAtOnce(const StopAtOnce* end);
