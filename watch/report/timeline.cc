#include "watch/report/timeline.h"

#include <algorithm>
#include <cstdlib>

#include "trace/counts/snapshot_totals.h"

namespace {

void addPoint(TimelinePoint& sum, const TimelinePoint& point) {
    addCounters(sum.totals.multicast, point.totals.multicast);
    addCounters(sum.totals.retransmission, point.totals.retransmission);
    addCounters(sum.totals.pointToPoint, point.totals.pointToPoint);
    sum.totals.subjects.msgs += point.totals.subjects.msgs;
    sum.totals.subjects.bytes += point.totals.subjects.bytes;
    sum.faults += point.faults;
    sum.endSeconds = point.endSeconds;
}

// Called while the number of points is even, and each of them full.
void joinPairs(Timeline& timeline) {
    for (uint32_t pair = 0; pair < timeline.count / 2; ++pair) {
        const TimelinePoint* const both = timeline.points + size_t{2} * pair;
        TimelinePoint first = both[0];
        addPoint(first, both[1]);
        timeline.points[pair] = first;
    }
    timeline.count /= 2;
    timeline.joined *= 2;
    timeline.inLast = timeline.joined;
}

TimelinePoint pointOf(const Timeline& timeline,
                      const SnapHeader& snapshot,
                      const SnapTotals& totals) {
    TimelinePoint point{
        .endSeconds = snapshot.thisTime.seconds + snapshot.thisTime.nanoseconds / 1e9,
        .totals = totals,
        .faults = 0};
    for (const FaultCount& fault : snapshot.faults) {
        point.faults += fault.packets;
    }
    // A capture's clock may have been set back.
    if (timeline.count != 0) {
        point.endSeconds =
            std::max(point.endSeconds, timeline.points[timeline.count - 1].endSeconds);
    }
    return point;
}

}  // namespace

bool timelineAdd(Timeline& timeline, const SnapHeader& snapshot, const SnapTotals& totals) {
    if (timeline.points == nullptr) {
        void* const block = std::calloc(kTimelineMostPoints, sizeof(TimelinePoint));
        if (block == nullptr) return false;
        timeline = {
            .points = static_cast<TimelinePoint*>(block), .count = 0, .joined = 1, .inLast = 1};
    }
    const TimelinePoint point = pointOf(timeline, snapshot, totals);
    const bool isFull = timeline.inLast == timeline.joined;
    if (isFull && timeline.count == kTimelineMostPoints) {
        joinPairs(timeline);
    }
    if (timeline.count == 0 || timeline.inLast == timeline.joined) {
        timeline.points[timeline.count++] = point;
        timeline.inLast = 1;
    } else {
        addPoint(timeline.points[timeline.count - 1], point);
        ++timeline.inLast;
    }
    return true;
}

void timelineFree(Timeline& timeline) {
    std::free(timeline.points);
    timeline = {};
}
