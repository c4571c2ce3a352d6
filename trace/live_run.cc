#include "trace/live_run.h"

#include <cstdio>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/base/thread.h"
#include "trace/capture_session.h"
#include "trace/capture_state.h"
#include "trace/classify.h"
#include "trace/report.h"
#include "trace/snapshot.h"
#include "trace/stop_wait.h"

namespace {

struct LiveRun {
    // Of the main thread.
    Thread* captureThread = nullptr;

    // Of the timer thread.
    bool reportsLost = false;
};

constinit LiveRun liveRun;

void handlePacket(SnapTime, const uint8_t* ip, size_t length) {
    analyzePacket(ip, length);
}

void capture(void*) {
    runCaptureLoop(captureState.captureHandle, handlePacket, 0);
}

// Told once, until reports get through again. With "-logfile" the stream isn't written to.
void tellOfLostReports() {
    const bool lost = std::ferror(stdout) != 0;
    if (lost && !liveRun.reportsLost) {
        logPrint("reports can't be written to the standard output; the run goes on.");
    }
    liveRun.reportsLost = lost;
    std::clearerr(stdout);
}

}  // namespace

pelmoStatus captureThreadStart() {
    return Thread_Create(&liveRun.captureThread, capture, nullptr);
}

void captureThreadRelease() {
    Thread* const thread = std::exchange(liveRun.captureThread, nullptr);
    if (thread != nullptr) Thread_Destroy(thread);
}

void onSnapshotTimer() {
    if (captureShuttingDown()) return;
    TimeSpec now;
    clockNow(&now);
    SnapHeader* const snapshot = snapshotTake({now.seconds, now.nanoseconds});
    if (snapshot == nullptr) return;
    printSnapshot(snapshot);
    tellOfLostReports();
}

void waitForStop() {
    (void)stopWaitInit(nullptr);
    stopWaitRun();
    stopWaitCleanup();
}
