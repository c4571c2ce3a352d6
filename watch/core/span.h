// How long an interval was, and what lies between it and the one before. Stamps are subtracted as
// whole nanoseconds: as doubles, seconds since 1970 leave no room for more than a microsecond.
//
// Live, an interval's length is that of the steady clock, and a difference to its stamps is a step
// of the wall clock: it was set, or the machine slept. Offline, lengths are those of the
// stamps; intervals lie on a grid, and one that doesn't begin where the last one ended comes after
// a silence, or after a clock that was set back.
//
// Threads: no lock; the owner of the watch serialises.

#pragma once

#include <cstdint>

#include "lib/base/clock.h"
#include "trace/counts/snapshot.h"

inline constexpr int64_t kNanosecondsOfSecond = 1'000'000'000;

[[nodiscard]] inline int64_t nanosecondsOf(TimeSpec time) {
    return int64_t{time.seconds} * kNanosecondsOfSecond + time.nanoseconds;
}

[[nodiscard]] inline double secondsOf(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

// Since 1970.
[[nodiscard]] inline double secondsOf(TimeSpec time) {
    return secondsOf(nanosecondsOf(time));
}

struct SpanWatch {
    bool isLive;
    bool hasLast;
    int64_t lastEnd;     // of the interval before, by its stamp
    int64_t lastSteady;  // when that ended, by the steady clock
};

// From here the first interval of a live run counts.
void spanBegin(SpanWatch& watch, int64_t steadyNanoseconds);

// The span of the Snapshot that is taken now. Once for each.
[[nodiscard]] SnapSpan spanTake(SpanWatch& watch,
                                const SnapHeader& snapshot,
                                int64_t steadyNanoseconds);
