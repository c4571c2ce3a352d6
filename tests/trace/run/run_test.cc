#include "trace/run/run.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tests/support/test.h"
#include "tests/support/trace_run.h"
#include "trace/capture/capture_session.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/run/report_output.h"
#include "trace/run/run_modes.h"
#include "trace/run/settings_check.h"
#include "trace/run/snapshot_sink.h"
#include "trace/settings.h"

namespace {

TEST(LiveRun, ReportsByTheWallClockUntilTheShutdown) {
    setenv("TZ", "UTC", 1);
    tzset();
    TraceRun run;
    const FixedClock clock(1700000010);
    const FixedMonotonic steady(1000);
    const auto report = [&run] {
        onSnapshotTimer();
        return run.logged();
    };
    snapshotSetStart({1700000000, 0});
    snapshotSink = kReportSink;
    traceSettings.displayMcast = traceSettings.displaySubjects = false;
    traceSettings.updateInterval = 0;
    EXPECT_EQ(snapshotTimerSeconds(), 0.001);
    EXPECT_EQ(report(), Lines({"Snapshot  2023-11-14 22:13:30  (10.0 elapsed seconds)", ""}));
    EXPECT_EQ(report(), Lines());  // at most one per millisecond

    FixedMonotonic::set(1000, 1'000'000);
    captureState.shuttingDown = true;
    EXPECT_EQ(report(), Lines());
    captureState.shuttingDown = false;
    traceSettings = {};
}

TEST(LiveRun, AReportThatComesLateIsJoinedWithTheNextOne) {
    TraceRun run;
    const FixedClock clock(1700000010);
    const FixedMonotonic steady(1000);
    static int reports;
    snapshotSink = {};
    snapshotSink.take = [](SnapHeader*) { ++reports; };
    snapshotSink.keepsGrid = true;
    traceSettings.updateInterval = 2;
    // Milliseconds. The first two settle; that of 10,500 is late, and the timer catches up.
    const struct {
        uint64_t time;
        int reports;
    } rows[] = {{0, -1},    {2000, 1},  {4000, 1},  {6000, 1},  {10500, 0}, {10501, 0},
                {12000, 1}, {14000, 1}, {14001, 0}, {17200, 0}, {17600, 0}, {18000, 1}};
    static uint64_t begin = 1000;
    begin += 1000;  // where the test is repeated
    for (const auto& row : rows) {
        reports = 0;
        FixedMonotonic::set(begin + row.time / 1000, row.time % 1000 * 1'000'000);
        onSnapshotTimer();
        EXPECT_TRUE(row.reports < 0 || reports == row.reports) << row.time;
    }
    snapshotSink = {};
    traceSettings = {};
}

// "BEGIN-END PACKETS, ...", of each interval; times in seconds.
std::string intervals;

void note(SnapHeader* snapshot) {
    const auto text = [](TimeSpec time) {
        const std::string tenths = std::to_string(time.nanoseconds / 100'000'000);
        return std::to_string(time.seconds) + (tenths == "0" ? "" : "." + tenths);
    };
    intervals += (intervals.empty() ? "" : ", ") + text(snapshot->prevTime) + "-" +
                 text(snapshot->thisTime) + " " + std::to_string(snapshot->packets);
}

std::string intervalsOf(bool keepsGrid, uint32_t seconds, const std::vector<double>& packets) {
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
    const struct {
        const char* what;
        uint32_t seconds;
        std::vector<double> packets;
        const char* wanted;
    } cases[] = {
        {"no hole", 10, {100, 105, 110, 110.1, 120, 121}, "100-110 3, 110-120 2, 120-121 1"},
        {"a hole", 10, {100, 3705, 3706}, "100-110 1, 3700-3706 2"},
        {"a hole that ends on the grid", 10, {100, 3700}, "100-110 1, 3690-3700 1"},
        {"a packet an interval", 10, {0, 30, 60.5}, "0-10 1, 20-30 1, 60-60.5 1"},
        {"one a little late", 10, {100, 111, 108, 121}, "100-110 1, 110-120 2, 120-121 1"},
        {"the last a little late", 10, {100, 111, 108}, "100-110 1, 110-110 2"},
        {"set back", 10, {5000, 5004, 100, 103}, "5000-5004 2, 100-103 2"},
        {"set back at once", 10, {5000, 100, 103}, "100-103 3"},
        {"far apart",
         1,
         {INT32_MIN + 1, INT32_MAX},
         "-2147483647--2147483646 1, 2147483646-2147483647 1"},
        {"intervals of no length", 0, {100, 100, 101, 107}, "100-100 2, 100-100 1, 100-107 1"},
    };
    for (const auto& [what, seconds, packets, wanted] : cases)
        EXPECT_EQ(intervalsOf(true, seconds, packets), wanted) << what;
    // Without a grid a packet ends one interval.
    EXPECT_EQ(intervalsOf(false, 10, {100, 3705, 3706}), "100-110 1, 110-120 1, 120-3706 1");
}

TEST(SettingsCheck, RefusesFiltersThatTakeTooLongToCompile) {
    TraceRun run;
    const auto repeated = [](const char* unit, int times) {
        std::string text = "udp";
        for (int i = 0; i < times; ++i)
            text += unit;
        return text;
    };
    const struct {
        std::string filter;  // none: of the lists
        size_t addrs = 0;
        const char* refused = nullptr;  // none: accepted
    } cases[] = {
        {"", 100},
        {"", 10000, "the filter of -addr, -src, -dst and -port"},
        {repeated(" or (((((udp)))))", 200)},
        {repeated(" or host 10.0.0.1", 10000), 0, "-filter"},
        {"no filter at all" + std::string(2000, ' ')},  // libpcap refuses it later
    };
    for (const auto& [filter, addrs, refused] : cases) {
        SCOPED_TRACE(filter.substr(0, 60) + std::to_string(addrs));
        traceSettings.srcAddrs.assign(addrs, "10.200.200.200");
        traceSettings.builtFilter = buildFilter(traceSettings.srcAddrs, {}, {});
        traceSettings.filterText =
            filter.empty() ? traceSettings.builtFilter.c_str() : filter.c_str();
        EXPECT_EQ(validateFilter(), refused ? kStatusInvalidArgument : kStatusSuccess);
        const std::string why = ": too long for libpcap to compile in reasonable time.";
        EXPECT_EQ(run.logged(), refused ? Lines({refused + why}) : Lines());
    }
    traceSettings = {};
}

TEST(SettingsCheck, RefusesACaptureWhoseNumberedNamesWouldBeCut) {
    TraceRun run;
    for (const auto& [nameBytes, rotations, limitBytes, fits] : {std::tuple{257u, 99, 1u, true},
                                                                 {258u, 9, 1u, true},
                                                                 {258u, 10, 1u, false},
                                                                 {400u, 10, 0u, true},
                                                                 {400u, 0, 1u, true},
                                                                 {300u, 1, 1u, false}}) {
        const std::string path = "/" + std::string(nameBytes - 1, 'n');
        traceSettings.writeFile = path.c_str();
        traceSettings.captureMaxRotations = rotations;
        traceSettings.captureLimitBytes = limitBytes;
        EXPECT_EQ(validateFiles(), fits ? kStatusSuccess : kStatusInvalidArgument) << nameBytes;
        EXPECT_EQ(run.logged().size(), fits ? 0u : 1u);
    }
    traceSettings = {};
}

}  // namespace
