// A wall clock that stands still until it is set: for as long as it exists, clockNow and all that
// rests on it tell its time. One at a time.

#pragma once

#include <atomic>

#include "lib/base/clock.h"

struct FixedClock {
    explicit FixedClock(int64_t seconds, int64_t nanoseconds = 0) {
        set(seconds, nanoseconds);
        former = clockSetSource(tell);
    }
    ~FixedClock() { clockSetSource(former); }
    FixedClock(const FixedClock&) = delete;
    FixedClock& operator=(const FixedClock&) = delete;

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
