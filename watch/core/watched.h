// What the program watches, and how that is: for those who look at a form and don't know its
// command line.
//
//     live  <->  down          the interface has no carrier, or was taken down
//     live   ->  waiting  ->  live      with --wait-interface: it is gone, and may come back
//     live   ->  failed        capture has ended with an error
//     reading  ->  read | failed
//
// Threads: any, but where something else is said.

#pragma once

#include <cstdint>
#include <string>

#include "lib/base/clock.h"
#include "lib/base/status.h"

enum class WatchState : uint8_t { kLive, kDown, kWaiting, kReading, kRead, kFailed };

struct WatchedState {
    WatchState state;
    TimeSpec since;      // when it became so
    std::string reason;  // safe text, why it failed or waits; empty where it doesn't
};

// Constant from watchedBegin on. Text is safe.
struct Watched {
    std::string host;  // the machine's name
    TimeSpec since;    // the beginning
};

// Once, at the start; a status for a table of steps. `onChange` is called after each change of the
// state, with no lock held, on the thread that brought it; it may be null.
[[nodiscard]] pelmoStatus watchedBegin(void (*onChange)());

[[nodiscard]] const Watched& watched();
[[nodiscard]] WatchedState watchedState();

// Whether frames come, or came to a sound end.
[[nodiscard]] bool watchStateIsWell(WatchState state);

// For programs: "live", "down", "waiting", "reading", "read", "failed".
[[nodiscard]] const char* watchStateKey(WatchState state);

// For people: "read to its end", "capture failed: The interface disappeared".
[[nodiscard]] std::string watchedWords(const WatchedState& state);

// `reason` may be null, and is any text. What has failed stays so.
void watchedSet(WatchState state, const char* reason);

// The link of a live source; of no effect while capture has failed or waits.
void watchedSetLink(bool isUp);
