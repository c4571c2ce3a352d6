#include "trace/run/live_run.h"

#include <utility>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/log.h"
#include "lib/base/thread.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/packets/classify.h"
#include "trace/run/report_output.h"
#include "trace/run/stop_wait.h"

namespace {

struct LiveRun {
    // Of the main thread.
    Thread* captureThread = nullptr;

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    Cond reportEnded = {};  // made at the start
    bool reporting PELMO_GUARDED_BY(lock) = false;
};

constinit LiveRun liveRun;

void handlePacket(TimeSpec, const uint8_t* ip, size_t length) {
    analyzePacket(ip, length);
}

void capture(void*) {
    runCaptureLoop(captureState.captureHandle, handlePacket, 0);
}

void setReporting(bool reporting) {
    const LockGuard guard(liveRun.lock);
    liveRun.reporting = reporting;
    if (!reporting) Cond_Signal(&liveRun.reportEnded);
}

}  // namespace

pelmoStatus liveRunInit() {
    return Cond_Init(&liveRun.reportEnded);
}

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
    SnapHeader* const snapshot = snapshotTake(now);
    captureFileFlush();
    if (snapshot == nullptr) return;
    setReporting(true);
    reportPrint(snapshot);
    setReporting(false);
}

void waitForStop() {
    const pelmoStatus status = stopWaitInit(nullptr);
    if (status != kStatusSuccess) {
        logPrint("unable to wait for a stop signal: %s.", pelmoStatus_GetText(status));
    }
    stopWaitRun();
    stopWaitCleanup();
}

bool reportEndsWithin(double seconds) {
    const LockGuard guard(liveRun.lock);
    while (liveRun.reporting) {
        if (Cond_TimedWait(&liveRun.reportEnded, &liveRun.lock, seconds) == kStatusTimeout) break;
    }
    return !liveRun.reporting;
}
