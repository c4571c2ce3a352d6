// Clocks that stand still until they are set. FixedClock replaces the wall clock: while it exists,
// clockNow and all that uses it return its time. FixedMonotonic replaces the monotonic clock behind
// clockSteadySeconds. Only one of each may exist at a time.

#pragma once

#include <atomic>

#include "lib/base/clock.h"

template <ClockSource (*setSource)(ClockSource)>
struct ClockThatStands {
    explicit ClockThatStands(int64_t seconds, int64_t nanoseconds = 0) {
        set(seconds, nanoseconds);
        former = setSource(tell);
    }
    ~ClockThatStands() { setSource(former); }
    ClockThatStands(const ClockThatStands&) = delete;
    ClockThatStands& operator=(const ClockThatStands&) = delete;

    // The two parts don't change together for other threads.
    static void set(int64_t seconds, int64_t nanoseconds = 0) {
        secondsNow = seconds;
        nanosecondsNow = nanoseconds;
    }

  private:
    static timespec tell() { return {secondsNow.load(), nanosecondsNow.load()}; }

    static inline std::atomic<int64_t> secondsNow;
    static inline std::atomic<int64_t> nanosecondsNow;
    ClockSource former;
};

using FixedClock = ClockThatStands<clockSetSource>;
using FixedMonotonic = ClockThatStands<clockSetMonotonicSource>;
