// A live run on a saved capture: the same loop and thread, and a source that ends by itself.

#include "trace/run/live_run.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdlib>
#include <ctime>

#include "lib/base/lock.h"
#include "lib/base/thread.h"
#include "lib/msg/pool.h"
#include "tests/support/capture_file.h"
#include "tests/support/fixed_clock.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

constexpr int64_t kNow = 1700000000;

std::atomic<bool> ended;  // the capture thread

uint64_t packetsCounted() {
    const LockGuard guard(statsLock);
    return statistics.totalPackets;
}

struct LiveRunTest : testing::Test {
    LiveRunTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        traceSettings.displayMcast = traceSettings.displaySubjects = false;
        snapshotSetStart({static_cast<int32_t>(kNow), 0});
    }
    ~LiveRunTest() override {
        captureThreadRelease();
        awaitCaptureThread();
        Thread_SetStartHook(poolThreadRun);
        pcap_close(captureState.captureHandle);
        captureState.captureHandle = nullptr;
        captureState.shuttingDown = false;
        traceSettings = {};
    }

    // `cutBytes` of the last record are missing.
    void capture(size_t frames, size_t cutBytes = 0) {
        const SavedFrame frame = {1, 0, ethernetFrame(dataPacket({}, {}))};
        std::string text = captureText(std::vector<SavedFrame>(frames, frame));
        text.resize(text.size() - cutBytes);
        writeFile(path, text);
        captureState.captureHandle = openOffline(path.c_str());
        ASSERT_NE(captureState.captureHandle, nullptr);
        (void)run.logged();
        ended = false;
        Thread_SetStartHook([](ThreadFunction function, void* argument) {
            function(argument);
            ended = true;
        });
        ASSERT_EQ(captureThreadStart(), kStatusSuccess);
    }

    // Nobody can join it: it tells by itself.
    static void awaitCaptureThread() {
        while (!ended)
            sched_yield();
    }

    Lines report() {
        onSnapshotTimer();
        return run.logged();
    }

    TraceRun run{false};
    const Folder folder;
    const std::string path = folder.path("in");
    FixedClock clock{kNow + 10};
};

TEST_F(LiveRunTest, CountsOnItsThreadAndReportsByTheWallClock) {
    capture(3);
    while (packetsCounted() < 3)
        sched_yield();
    EXPECT_EQ(report(), Lines({"Snapshot  2023-11-14 22:13:30  (10.0 elapsed seconds)", ""}));
    EXPECT_EQ(packetsCounted(), 0u);

    // An hour back: odd to read, and nothing else.
    FixedClock::set(kNow - 3600);
    EXPECT_EQ(report(), Lines({"Snapshot  2023-11-14 21:13:20  (-3610.0 elapsed seconds)", ""}));
}

TEST_F(LiveRunTest, ReportsOnceAMillisecondAtMost) {
    FixedMonotonic steady(1000);
    capture(0);
    awaitCaptureThread();
    traceSettings.updateInterval = 0;
    EXPECT_EQ(snapshotTimerSeconds(), 0.001);
    EXPECT_EQ(report().size(), 2u);
    EXPECT_EQ(report().size(), 0u);
    FixedMonotonic::set(1000, 1'000'000);
    EXPECT_EQ(report().size(), 2u);
}

TEST_F(LiveRunTest, GoesOnReportingWhenTheSourceFails) {
    capture(2, 5);
    awaitCaptureThread();  // the log is read only when nobody writes to it
    const Lines told = run.logged();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(told[0].starts_with("pcap_loop: ")) << told[0];
    EXPECT_EQ(packetsCounted(), 1u);
    EXPECT_EQ(report().size(), 2u);
}

TEST_F(LiveRunTest, IsSilentOnceTheShutdownHasBegun) {
    captureState.shuttingDown = true;
    capture(2);
    EXPECT_EQ(report(), Lines());
    captureThreadRelease();
    awaitCaptureThread();
    EXPECT_EQ(packetsCounted(), 0u);
}

}  // namespace
