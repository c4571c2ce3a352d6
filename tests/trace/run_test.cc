#include "trace/run.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/scratch_folder.h"
#include "trace/capture_session.h"
#include "trace/capture_state.h"
#include "trace/runtime_ops.h"
#include "trace/settings.h"
#include "trace/statistics.h"

namespace {

using Calls = std::vector<std::string>;

Calls calls;
pelmoStatus openStatus;
pelmoStatus timerStatus;

pelmoStatus noteOpen() {
    calls.push_back("open");
    return openStatus;
}

pelmoStatus noteTimer(double seconds, void (*)()) {
    calls.push_back("timer " + std::to_string(static_cast<int>(seconds * 1000)));
    return timerStatus;
}

// What the end of the process would take.
void undoStart() {
    if (captureState.dumpHandle != nullptr) closeDump(captureState.dumpHandle);
    if (captureState.captureHandle != nullptr) pcap_close(captureState.captureHandle);
    captureState.dumpHandle = nullptr;
    captureState.captureHandle = nullptr;
    captureState.savingFrames = false;
    captureState.captureBytes = 0;
    captureState.shuttingDown = false;
    if (statistics.ports != nullptr) statsDestroy();
}

// An offline run's start and end, with a capture without packets.
struct Run : testing::Test {
    Run() {
        writeFile(input, captureText({}));
        calls.clear();
        openStatus = timerStatus = kStatusSuccess;
        traceSettings = {};
        traceSettings.readFile = input.c_str();
        traceSettings.liveCapture = false;
        traceSettings.filterText = "udp";
    }
    ~Run() override {
        undoStart();
        runtimeOps = {};
        traceSettings = {};
    }

    void saveAndRotate() {
        traceSettings.writeFile = output.c_str();
        traceSettings.rotationOptions = kCaptureMaxSeen;
        traceSettings.captureMaxSizeMB = 1;
    }

    static void attachRuntime() {
        runtimeOps.open = noteOpen;
        runtimeOps.close = [] { calls.push_back("close"); };
        runtimeOps.createTimer = noteTimer;
    }

    const Folder folder;
    const std::string input = folder.path("in");
    const std::string output = folder.path("out");
};

TEST_F(Run, OpensTheLibraryBehindTheCaptureFileAndClosesItLast) {
    saveAndRotate();
    attachRuntime();
    ASSERT_EQ(startTrace(), kStatusSuccess);
    EXPECT_EQ(calls, Calls({"open", "timer 1000"}));
    EXPECT_NE(captureState.dumpHandle, nullptr);
    stopTrace();
    EXPECT_EQ(calls, Calls({"open", "timer 1000", "close"}));
    EXPECT_EQ(captureState.dumpHandle, nullptr);
    EXPECT_TRUE(captureState.shuttingDown);
    EXPECT_EQ(readFile(output), captureText({}));
}

TEST_F(Run, NeedsNoTimerWithoutALimit) {
    traceSettings.writeFile = output.c_str();
    attachRuntime();
    ASSERT_EQ(startTrace(), kStatusSuccess);
    EXPECT_EQ(calls, Calls({"open"}));
}

TEST_F(Run, LeavesOutWhatNeedsTheRuntimeWhereThereIsNone) {
    saveAndRotate();
    ASSERT_EQ(startTrace(), kStatusSuccess);
    stopTrace();
    EXPECT_EQ(readFile(output), captureText({}));
}

TEST_F(Run, ReportsWhatTheRuntimeAnswers) {
    saveAndRotate();
    attachRuntime();
    timerStatus = kStatusInvalidInterval;
    EXPECT_EQ(startTrace(), kStatusInvalidInterval);
    openStatus = kStatusOsError;
    calls.clear();
    undoStart();
    EXPECT_EQ(startTrace(), kStatusOsError);
    EXPECT_EQ(calls, Calls({"open"}));
}

TEST_F(Run, TheFirstFailureEndsTheStart) {
    const std::string nowhere = folder.path("none/file");
    const char* const path = nowhere.c_str();
    const struct {
        const char* what;
        void (*damage)(const char* path);
        pelmoStatus status;
    } cases[] = {
        {"log rotation",
         [](const char*) {
             traceSettings.rotationOptions = kLogMaxSeen;
             traceSettings.logMaxSizeKB = -1;
         },
         kStatusInvalidArgument},
        {"capture rotation",
         [](const char*) {
             traceSettings.rotationOptions = kCaptureMaxSeen;
             traceSettings.captureMaxRotations = -1;
         },
         kStatusInvalidArgument},
        {"log file", [](const char* at) { traceSettings.logFile = at; }, kStatusInitFailed},
        {"source", [](const char* at) { traceSettings.readFile = at; }, kStatusNotInitialized},
        {"capture file", [](const char* at) { traceSettings.writeFile = at; },
         kStatusNotInitialized},
    };
    attachRuntime();
    for (const auto& [what, damage, status] : cases) {
        SCOPED_TRACE(what);
        const TraceSettings sound = traceSettings;
        damage(path);
        EXPECT_EQ(startTrace(), status);
        undoStart();
        traceSettings = sound;
    }
    EXPECT_EQ(calls, Calls());
}

}  // namespace
