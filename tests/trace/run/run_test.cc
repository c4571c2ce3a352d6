#include "trace/run/run.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <semaphore>

#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/library.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test.h"
#include "tests/support/trace_run.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/run/report_output.h"
#include "trace/run/run_modes.h"
#include "trace/settings.h"

namespace {

// What the end of the process would take.
void undoStart() {
    pelmo_Close();
    resetCapture();
    statsDestroy();
}

// An offline run's start and end, with a capture without packets.
struct Run : testing::Test {
    Run() {
        writeFile(input, captureText({}));
        traceSettings = {};
        traceSettings.readFile = input.c_str();
        traceSettings.liveCapture = false;
        traceSettings.filterText = "udp";
    }
    ~Run() override {
        undoStart();
        traceSettings = {};
    }

    // Timers that are due have run on return: one of no interval is the last of its pass.
    static void timerThreadPasses() {
        static std::binary_semaphore passed(0);  // its release may end after the acquire
        uint32_t timer = 0;
        const auto onTick = [](uint32_t event, pelmoMsg*, void*) {
            pelmoEvent_DestroyEx(event, nullptr);
            passed.release();
        };
        ASSERT_EQ(pelmoEvent_CreateTimer(&timer, kTimerQueueId, onTick, 0, nullptr),
                  kStatusSuccess);
        passed.acquire();
    }

    const Folder folder;
    const std::string input = folder.path("in");
    const std::string output = folder.path("out");
};

// By the timer, for each count of numbered files, and by a path that was relative at the start.
TEST_F(Run, RotatesTheCaptureFileOnceASecond) {
    const std::string home = std::filesystem::current_path();
    using Names = std::set<std::string>;
    for (const auto& [count, names] : {std::pair{0, Names{"in", "out"}},
                                       {1, {"in", "out", "out1"}},
                                       {3, {"in", "out", "out1", "out2"}}}) {
        traceSettings.rotationOptions = kCaptureMaxSeen;
        traceSettings.captureMaxSizeMB = 1;
        std::filesystem::current_path(folder.root);
        traceSettings.writeFile = "out";
        traceSettings.captureMaxRotations = count;
        {
            FixedMonotonic clock(1000);
            ASSERT_EQ(startTrace(), kStatusSuccess);
            std::filesystem::current_path("/");
            for (const int64_t seconds : {1001, 1002}) {
                handleFrame(Bytes(1 << 20));  // more than the limit
                captureFileFlush();
                FixedMonotonic::set(seconds, 500'000'000);
                timerThreadPasses();
            }
            stopTrace();
        }
        EXPECT_FALSE(libraryIsOpen());
        EXPECT_EQ(folder.names(), names) << count;
        EXPECT_EQ(readFile(output), captureText({}));
        undoStart();
        for (const char* const numbered : {"out1", "out2"})
            unlink(folder.path(numbered).c_str());
    }
    std::filesystem::current_path(home);
}

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

}  // namespace
