// The course of a capture: sums by time. Each point is a slot of the same length, the first begins
// with the capture, and a slot without packets is all 0: silence is a hole.
//
// A page shows no more points than a screen has columns. Where a capture takes more time, pairs of
// neighbours are joined, again and again: each point then covers twice as long.
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
    SnapTotals totals;
    uint64_t faults;
};

// Times are in nanoseconds since 1970.
struct Timeline {
    TimelinePoint* points;
    uint32_t count;
    int64_t slot;   // length of a point
    int64_t begin;  // of the first point
    int64_t end;    // of what the last point covers
};

// `slot` is the length of an interval in nanoseconds, 0 for intervals of any length.
[[nodiscard]] bool timelineAdd(Timeline& timeline,
                               const SnapHeader& snapshot,
                               const SnapTotals& totals,
                               int64_t slot);

// The end of a point and its length, which for the last may be shorter.
[[nodiscard]] int64_t timelineEnd(const Timeline& timeline, uint32_t point);
[[nodiscard]] int64_t timelineLength(const Timeline& timeline, uint32_t point);

void timelineFree(Timeline& timeline);
