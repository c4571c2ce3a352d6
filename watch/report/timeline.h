// The course of a capture: the sums of each interval, one point after the other.
//
// A page shows no more points than a screen has columns. Where a capture brings more, pairs of
// neighbours are joined, again and again: each point then covers twice as many intervals.
//
// Ownership: the timeline owns its points; usable zeroed.
//
// Failure: false when memory runs out, and the interval isn't in it.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstdint>

#include "trace/counts/snapshot.h"

inline constexpr uint32_t kTimelineMostPoints = 2048;

struct TimelinePoint {
    double endSeconds;  // since 1970
    SnapTotals totals;
    uint64_t faults;
};

struct Timeline {
    TimelinePoint* points;
    uint32_t count;
    uint32_t joined;  // intervals of each point but the last; 0: none came yet
    uint32_t inLast;  // intervals of the last point
};

[[nodiscard]] bool timelineAdd(Timeline& timeline,
                               const SnapHeader& snapshot,
                               const SnapTotals& totals);

void timelineFree(Timeline& timeline);
