// Clocks that stand still until they are set. FixedClock is the wall clock: for as long as it
// exists, clockNow and all that rests on it tell its time. FixedMonotonic is the monotonic clock
// beneath clockSteadySeconds. One of each at a time.

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

    // Other threads may see the two parts change one after the other.
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
