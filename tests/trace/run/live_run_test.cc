// What of a live run no live run shows; tests/e2e/live_test.py has the others.

#include <gtest/gtest.h>

#include "tests/support/test.h"
#include "tests/support/trace_run.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/run/report_output.h"
#include "trace/run/run_modes.h"
#include "trace/settings.h"

namespace {

struct LiveRunTest : testing::Test {
    LiveRunTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        traceSettings.displayMcast = traceSettings.displaySubjects = false;
        snapshotSetStart({1700000000, 0});
        snapshotSink = kReportSink;
    }
    ~LiveRunTest() override {
        captureState.shuttingDown = false;
        traceSettings = {};
    }

    Lines report() {
        onSnapshotTimer();
        return run.logged();
    }

    TraceRun run;
    FixedClock clock{1700000010};
    FixedMonotonic steady{1000};
};

TEST_F(LiveRunTest, ReportsByTheWallClockUntilTheShutdown) {
    traceSettings.updateInterval = 0;
    EXPECT_EQ(snapshotTimerSeconds(), 0.001);
    EXPECT_EQ(report(), Lines({"Snapshot  2023-11-14 22:13:30  (10.0 elapsed seconds)", ""}));
    EXPECT_EQ(report(), Lines());  // at most one per millisecond

    FixedMonotonic::set(1000, 1'000'000);
    FixedClock::set(1700000000 - 3600);
    EXPECT_EQ(report(), Lines({"Snapshot  2023-11-14 21:13:20  (-3610.0 elapsed seconds)", ""}));
    FixedMonotonic::set(1000, 2'000'000);
    captureState.shuttingDown = true;
    EXPECT_EQ(report(), Lines());
}

}  // namespace
