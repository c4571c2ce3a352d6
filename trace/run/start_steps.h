// The steps of a run's start that programs have in common. Each program has a table of its own,
// since their order is what its operators see, and each step needs those before it.
//
// Failure: a step's status; what is wrong is in the log. Nothing is undone: the end of the process
// takes what was opened.
//
// Threads: the main thread.

#pragma once

#include <span>

#include "lib/base/status.h"
#include "lib/runtime/event.h"

struct StartStep {
    bool liveOnly;
    pelmoStatus (*run)();
};

inline constexpr bool kLiveOnly = true;
inline constexpr bool kEitherMode = false;

// The first failure ends the start.
[[nodiscard]] pelmoStatus startInOrder(std::span<const StartStep> steps);

// Ahead of everything that opens a file: a standard stream that the caller closed would lend its
// number to the next one.
void holdStandardStreams();

// SIGXFSZ and SIGPIPE come with a write that fails, and the failed write is reported anyway: a
// limit of a file's size is a full disk like any other, and a reader that goes away is for the
// program to judge.
[[nodiscard]] pelmoStatus outliveFileLimit();
[[nodiscard]] pelmoStatus outliveReaders();

// The source of `traceSettings`, into `captureState`. kStatusNotInitialized.
[[nodiscard]] pelmoStatus openSource();

// A refused filter has logged its fault; the run goes on with all traffic.
[[nodiscard]] pelmoStatus filterSource();

// From here the first Snapshot of a live run counts.
[[nodiscard]] pelmoStatus markStart();

// Behind the library's opening. Timers aren't destroyed: they end with the library.
[[nodiscard]] pelmoStatus startTimerOf(double seconds, pelmoEventCallback onTick);

template <void (*tick)()>
[[nodiscard]] pelmoStatus startTimer(double seconds) {
    return startTimerOf(seconds, [](uint32_t, pelmoMsg*, void*) { tick(); });
}

[[nodiscard]] pelmoStatus startSnapshotTimer();
[[nodiscard]] pelmoStatus watchLink();
