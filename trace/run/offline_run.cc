#include "trace/run/offline_run.h"

#include <tuple>

#include "lib/base/clock.h"
#include "lib/base/log.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/packets/classify.h"
#include "trace/packets/packet_line.h"
#include "trace/run/report_output.h"
#include "trace/settings.h"

namespace {

struct OfflineRun {
    TimeSpec nextSnapshotTime;
    TimeSpec lastPacketTime;  // of those behind the first
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

void reportSnapshot(const TimeSpec& time) {
    packetsSettle();
    SnapHeader* const snapshot = snapshotTake(time);
    captureFileFlush();
    if (snapshot != nullptr) reportPrint(snapshot);
}

void handleFirstPacket(TimeSpec time, const uint8_t* ip, size_t length) {
    snapshotSetStart(time);
    offlineRun.nextSnapshotTime = afterInterval(time);

    CalendarTime begin;
    calendarFrom(time.seconds, &begin);
    logPrint("Savefile begins at %04d/%02d/%02d-%02d:%02d:%02d\n", begin.year, begin.month,
             begin.day, begin.hour, begin.minute, begin.second);
    classifyPacket(ip, length);
}

void handlePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    if (isLater(time, offlineRun.nextSnapshotTime)) {
        reportSnapshot(offlineRun.nextSnapshotTime);
        offlineRun.nextSnapshotTime = afterInterval(offlineRun.nextSnapshotTime);
    }
    offlineRun.lastPacketTime = time;
    packetEnter(ip, length);
}

}  // namespace

void runOffline() {
    offlineRun = {};
    runCaptureLoop(captureState.captureHandle, handleFirstPacket, 1);
    runCaptureLoop(captureState.captureHandle, handlePacket, 0);
    reportSnapshot(offlineRun.lastPacketTime);
    reportCheckOutput();
}
