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
    TimeSpec beginTime;
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

constexpr int64_t kNanosecondsOfSecond = 1'000'000'000;

int64_t nanosecondsOf(TimeSpec time) {
    return int64_t{time.seconds} * kNanosecondsOfSecond + time.nanoseconds;
}

int64_t nanosecondsBetween(TimeSpec from, TimeSpec to) {
    return nanosecondsOf(to) - nanosecondsOf(from);
}

// Intervals of no length have none.
bool hasGrid() {
    return snapshotSink.keepsGrid && traceSettings.updateInterval != 0;
}

// Too short for an interval of its own.
bool isSliver(int64_t nanoseconds) {
    return nanoseconds < traceSettings.updateInterval * (kNanosecondsOfSecond / 100);
}

void handOn(TimeSpec time) {
    packetsSettle();
    snapshotHandOn(time);
}

// The grid ends where the 32 bits do.
TimeSpec endOnGrid(TimeSpec begin) {
    const int64_t seconds = int64_t{begin.seconds} + traceSettings.updateInterval;
    return {static_cast<int32_t>(std::min<int64_t>(seconds, INT32_MAX)), begin.nanoseconds};
}

void beginAt(TimeSpec time) {
    snapshotSetStart(time);
    offlineRun.beginTime = time;
    offlineRun.nextSnapshotTime = hasGrid() ? endOnGrid(time) : afterInterval(time);
}

// Where the packet that comes after an interval's end begins its own: on the grid, at the last end
// before it. Without intervals on a grid each goes on from the one before.
void goOnBefore(TimeSpec packetTime) {
    const TimeSpec end = offlineRun.nextSnapshotTime;
    const int64_t interval = traceSettings.updateInterval * kNanosecondsOfSecond;
    const int64_t silent = (nanosecondsBetween(end, packetTime) - 1) / interval;
    const auto seconds = static_cast<uint32_t>(end.seconds) +
                         static_cast<uint32_t>(silent) * traceSettings.updateInterval;
    beginAt({static_cast<int32_t>(seconds), end.nanoseconds});
}

// Where the clock was set back within an interval, that one ends with the last packet before.
void goBackTo(TimeSpec packetTime) {
    const TimeSpec end = offlineRun.lastPacketTime;
    const int64_t length = nanosecondsBetween(offlineRun.beginTime, end);
    if (length > 0 && !isSliver(length)) handOn(end);
    beginAt(packetTime);
}

// The capture may hold frames that came a little late.
bool isSetBack(TimeSpec packetTime) {
    const int64_t interval = traceSettings.updateInterval * kNanosecondsOfSecond;
    return nanosecondsBetween(packetTime, offlineRun.beginTime) > interval;
}

void endIntervalsOfGrid(TimeSpec packetTime) {
    if (isSetBack(packetTime)) return goBackTo(packetTime);
    if (!isLater(packetTime, offlineRun.nextSnapshotTime)) return;
    handOn(offlineRun.nextSnapshotTime);
    goOnBefore(packetTime);
}

// Frames too short for a packet don't come here: the first packet may lie after such.
void begin(TimeSpec time) {
    offlineRun.begun = true;
    beginAt(time);
    if (snapshotSink.begin != nullptr) snapshotSink.begin(time);
}

constexpr double kLeastReportSeconds = 0.001;

struct LiveRun {
    // Of the main thread.
    Thread* captureThread = nullptr;

    // Of the timer thread.
    double lastReportSeconds = 0;
    // Of the monotonic clock, in nanoseconds; 0: none was, none is.
    uint64_t lastHandedOn = 0;
    uint64_t heldUpSince = 0;
};

constinit LiveRun liveRun;

void capture(void*) {
    bool goesOn = true;
    while (goesOn) {
        const char* const fault = runCaptureLoop(captureState.captureHandle, analyzePacket, 0);
        goesOn = fault != nullptr && !captureShuttingDown() &&
                 snapshotSink.captureFailed != nullptr && snapshotSink.captureFailed(fault);
    }
}

// A timer that was held up catches up by firing several times in a row.
bool isTooSoon() {
    const double now = clockSteadySeconds();
    return std::exchange(liveRun.lastReportSeconds, now) == now &&
           traceSettings.updateInterval == 0;
}

// Where a report is late by half an interval or more, the process was held up: frames of that time
// still wait in the capture's buffer. The next report, or the one after it, has both the time and
// the frames.
bool isHeldUp(uint64_t now) {
    const uint64_t interval = traceSettings.updateInterval * uint64_t{kNanosecondsOfSecond};
    if (liveRun.lastHandedOn == 0 || now - liveRun.lastHandedOn < interval * 3 / 2) return false;
    if (liveRun.heldUpSince == 0) liveRun.heldUpSince = now;
    return now - liveRun.heldUpSince < interval / 4;
}

// Is what has come since the last one to be joined with what follows?
bool joinsNext() {
    if (!snapshotSink.keepsGrid) return false;
    const uint64_t now = clockMonotonicNanoseconds();
    if (isSliver(static_cast<int64_t>(now - liveRun.lastHandedOn)) || isHeldUp(now)) return true;
    liveRun.lastHandedOn = now;
    liveRun.heldUpSince = 0;
    return false;
}

}  // namespace

void offlineRunBegin() {
    offlineRun = {};
}

void offlineRunPacket(TimeSpec time, const uint8_t* ip, size_t length) {
    if (!offlineRun.begun) {
        begin(time);
    } else if (hasGrid()) {
        endIntervalsOfGrid(time);
    } else if (isLater(time, offlineRun.nextSnapshotTime)) {
        handOn(offlineRun.nextSnapshotTime);
        offlineRun.nextSnapshotTime = afterInterval(offlineRun.nextSnapshotTime);
    }
    offlineRun.lastPacketTime = time;
    packetEnter(time, ip, length);
}

void offlineRunEnd() {
    TimeSpec end = offlineRun.lastPacketTime;
    // A packet that came a little late doesn't end its interval before it began.
    if (hasGrid() && isLater(offlineRun.beginTime, end)) end = offlineRun.beginTime;
    handOn(end);
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
    if (captureShuttingDown() || isTooSoon() || joinsNext()) return;
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
