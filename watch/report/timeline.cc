#include "watch/report/timeline.h"

#include <algorithm>
#include <cstdlib>

#include "trace/counts/snapshot_totals.h"
#include "watch/core/span.h"

namespace {

// Of intervals of any length; pairs are joined until all fit.
constexpr int64_t kLeastSlot = kNanosecondsOfSecond / 1000;

void addTotals(TimelinePoint& sum, const SnapTotals& totals) {
    addCounters(sum.totals.multicast, totals.multicast);
    addCounters(sum.totals.retransmission, totals.retransmission);
    addCounters(sum.totals.pointToPoint, totals.pointToPoint);
    sum.totals.subjects.msgs += totals.subjects.msgs;
    sum.totals.subjects.bytes += totals.subjects.bytes;
}

void joinPairs(Timeline& timeline) {
    for (uint32_t at = 0; at < timeline.count; at += 2) {
        TimelinePoint sum = timeline.points[at];
        if (at + 1 < timeline.count) {
            addTotals(sum, timeline.points[at + 1].totals);
            sum.faults += timeline.points[at + 1].faults;
        }
        timeline.points[at / 2] = sum;
    }
    const uint32_t count = (timeline.count + 1) / 2;
    std::fill(timeline.points + count, timeline.points + timeline.count, TimelinePoint{});
    timeline.count = count;
    timeline.slot *= 2;
}

// A capture's clock was set back to before its beginning: the points move on to make room.
void extendBack(Timeline& timeline, int64_t time) {
    const auto slotsWanted = [&] { return (timeline.begin - time - 1) / timeline.slot + 1; };
    while (slotsWanted() + timeline.count > kTimelineMostPoints) {
        joinPairs(timeline);
    }
    const auto slots = static_cast<uint32_t>(slotsWanted());
    std::copy_backward(timeline.points, timeline.points + timeline.count,
                       timeline.points + timeline.count + slots);
    std::fill(timeline.points, timeline.points + slots, TimelinePoint{});
    timeline.count += slots;
    timeline.begin -= slots * timeline.slot;
}

TimelinePoint& pointAt(Timeline& timeline, int64_t time) {
    if (time < timeline.begin) extendBack(timeline, time);
    while ((time - timeline.begin) / timeline.slot >= kTimelineMostPoints) {
        joinPairs(timeline);
    }
    const auto at = static_cast<uint32_t>((time - timeline.begin) / timeline.slot);
    timeline.count = std::max(timeline.count, at + 1);
    return timeline.points[at];
}

}  // namespace

bool timelineAdd(Timeline& timeline,
                 const SnapHeader& snapshot,
                 const SnapTotals& totals,
                 int64_t slot) {
    const int64_t begin = nanosecondsOf(snapshot.prevTime);
    const int64_t end = nanosecondsOf(snapshot.thisTime);
    if (timeline.points == nullptr) {
        void* const block = std::calloc(kTimelineMostPoints, sizeof(TimelinePoint));
        if (block == nullptr) return false;
        timeline = {.points = static_cast<TimelinePoint*>(block),
                    .count = 0,
                    .slot = std::max(slot, kLeastSlot),
                    .begin = begin,
                    .end = end};
    }
    TimelinePoint& point = pointAt(timeline, begin);
    addTotals(point, totals);
    for (const FaultCount& fault : snapshot.faults) {
        point.faults += fault.packets;
    }
    timeline.end = std::max(timeline.end, end);
    return true;
}

int64_t timelineEnd(const Timeline& timeline, uint32_t point) {
    const int64_t end = timeline.begin + (int64_t{point} + 1) * timeline.slot;
    return point + 1 == timeline.count ? std::min(end, timeline.end) : end;
}

int64_t timelineLength(const Timeline& timeline, uint32_t point) {
    const int64_t begin = timeline.begin + int64_t{point} * timeline.slot;
    return std::max<int64_t>(timelineEnd(timeline, point) - begin, 0);
}

void timelineFree(Timeline& timeline) {
    std::free(timeline.points);
    timeline = {};
}
