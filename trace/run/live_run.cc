#include "trace/run/live_run.h"

#include <algorithm>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/base/log_pace.h"
#include "lib/base/thread.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/packets/classify.h"
#include "trace/run/end_status.h"
#include "trace/run/snapshot_sink.h"
#include "trace/run/stop_wait.h"
#include "trace/settings.h"

namespace {

constexpr double kLeastReportSeconds = 0.001;

struct LiveRun {
    // Of the main thread.
    Thread* captureThread = nullptr;

    // Of the timer thread.
    double lastReportSeconds = 0;
};

constinit LiveRun liveRun;

void capture(void*) {
    runCaptureLoop(captureState.captureHandle, analyzePacket, 0);
}

// A timer that was held up catches up by firing several times in a row.
bool isTooSoon() {
    const double now = clockSteadySeconds();
    return std::exchange(liveRun.lastReportSeconds, now) == now &&
           traceSettings.updateInterval == 0;
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
    if (captureShuttingDown() || isTooSoon()) return;
    TimeSpec now;
    clockNow(&now);
    snapshotHandOn(now);
    logPaceSettle();
}

double snapshotTimerSeconds() {
    return std::max<double>(traceSettings.updateInterval, kLeastReportSeconds);
}

void waitForStop(void (*onEnd)()) {
    const pelmoStatus status = stopWaitInit(nullptr);
    if (status != kStatusSuccess) {
        logPrint("unable to wait for a stop signal: %s.", pelmoStatus_GetText(status));
    }
    if (!stopWaitRun()) endMarkFailed();
    onEnd();
    stopWaitCleanup();
}
