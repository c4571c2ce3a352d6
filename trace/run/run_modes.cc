#include "trace/run/run_modes.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "lib/base/log_pace.h"
#include "lib/base/thread.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/packets/classify.h"
#include "trace/packets/packet_pipeline.h"
#include "trace/run/run_end.h"
#include "trace/run/snapshot_sink.h"
#include "trace/run/stop_wait.h"
#include "trace/settings.h"

namespace {

struct OfflineRun {
    bool begun;  // a packet has come; zeros until then
    TimeSpec nextSnapshotTime;
    TimeSpec lastPacketTime;
};

OfflineRun offlineRun;

bool isLater(const TimeSpec& time, const TimeSpec& than) {
    return std::tie(time.seconds, time.nanoseconds) > std::tie(than.seconds, than.nanoseconds);
}

// Wraps around like the 32-bit clock that it moves on.
TimeSpec afterInterval(TimeSpec time) {
    const uint32_t seconds = static_cast<uint32_t>(time.seconds) + traceSettings.updateInterval;
    return {static_cast<int32_t>(seconds), time.nanoseconds};
}

void handOn(TimeSpec time) {
    packetsSettle();
    snapshotHandOn(time);
}

// Frames too short for a packet don't come here: the first packet may lie after such.
void begin(TimeSpec time) {
    offlineRun.begun = true;
    snapshotSetStart(time);
    offlineRun.nextSnapshotTime = afterInterval(time);
    if (snapshotSink.begin != nullptr) snapshotSink.begin(time);
}

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

void offlineRunBegin() {
    offlineRun = {};
}

void offlineRunPacket(TimeSpec time, const uint8_t* ip, size_t length) {
    if (!offlineRun.begun) {
        begin(time);
    } else if (isLater(time, offlineRun.nextSnapshotTime)) {
        handOn(offlineRun.nextSnapshotTime);
        offlineRun.nextSnapshotTime = afterInterval(offlineRun.nextSnapshotTime);
    }
    offlineRun.lastPacketTime = time;
    packetEnter(time, ip, length);
}

void offlineRunEnd() {
    handOn(offlineRun.lastPacketTime);
    if (snapshotSink.end != nullptr) snapshotSink.end();
}

void runOffline() {
    offlineRunBegin();
    runCaptureLoop(captureState.captureHandle, offlineRunPacket, 0);
    offlineRunEnd();
}

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
