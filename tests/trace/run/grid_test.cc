#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/packet_builder.h"
#include "tests/support/trace_run.h"
#include "trace/counts/snapshot.h"
#include "trace/run/run_modes.h"
#include "trace/run/snapshot_sink.h"
#include "trace/settings.h"

namespace {

// Of each interval "begin-end packets", times in seconds.
std::vector<std::string> intervals;

std::string secondsText(TimeSpec time) {
    const std::string tenths = std::to_string(time.nanoseconds / 100'000'000);
    return std::to_string(time.seconds) + (tenths == "0" ? "" : "." + tenths);
}

void note(SnapHeader* snapshot) {
    intervals.push_back(secondsText(snapshot->prevTime) + "-" + secondsText(snapshot->thisTime) +
                        " " + std::to_string(snapshot->packets));
}

std::vector<std::string> intervalsOf(bool keepsGrid,
                                     uint32_t seconds,
                                     const std::vector<double>& packets) {
    TraceRun run(false);
    traceSettings.updateInterval = seconds;
    snapshotSink = {.begin = nullptr,
                    .take = note,
                    .end = nullptr,
                    .wantsSource = false,
                    .keepsGrid = keepsGrid};
    intervals.clear();
    const Bytes packet = nullPacket({}, {});
    offlineRunBegin();
    for (const double time : packets) {
        const auto whole = static_cast<int32_t>(time);
        const auto tenths = static_cast<uint32_t>((time - whole) * 10 + 0.5);
        offlineRunPacket({whole, tenths * 100'000'000}, packet.data(), packet.size());
    }
    offlineRunEnd();
    snapshotSink = {};
    return intervals;
}

TEST(OfflineRun, IntervalsOfAGridHoldThePacketsOfTheirOwnTimes) {
    struct Case {
        const char* what;
        uint32_t seconds;
        std::vector<double> packets;
        std::vector<std::string> wanted;
    };
    const Case cases[] = {
        {"no hole", 10, {100, 105, 110, 110.1, 120, 121}, {"100-110 3", "110-120 2", "120-121 1"}},
        {"a hole", 10, {100, 3705, 3706}, {"100-110 1", "3700-3706 2"}},
        {"a hole that ends on the grid", 10, {100, 3700}, {"100-110 1", "3690-3700 1"}},
        {"a packet an interval", 10, {0, 30, 60.5}, {"0-10 1", "20-30 1", "60-60.5 1"}},
        {"one a little late", 10, {100, 111, 108, 121}, {"100-110 1", "110-120 2", "120-121 1"}},
        {"the last a little late", 10, {100, 111, 108}, {"100-110 1", "110-110 2"}},
        {"set back", 10, {5000, 5004, 100, 103}, {"5000-5004 2", "100-103 2"}},
        {"set back at once", 10, {5000, 100, 103}, {"100-103 3"}},
        {"far apart",
         1,
         {-2147483647, 2147483647},
         {"-2147483647--2147483646 1", "2147483646-2147483647 1"}},
        {"intervals of no length",
         0,
         {100, 100, 101, 107},
         {"100-100 2", "100-100 1", "100-107 1"}},
    };
    for (const Case& one : cases) {
        EXPECT_EQ(intervalsOf(true, one.seconds, one.packets), one.wanted) << one.what;
    }
}

TEST(OfflineRun, WithoutAGridOneIntervalEndsAPacket) {
    EXPECT_EQ(intervalsOf(false, 10, {100, 3705, 3706}),
              (std::vector<std::string>{"100-110 1", "110-120 1", "120-3706 1"}));
}

}  // namespace
