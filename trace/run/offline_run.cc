#include "trace/run/offline_run.h"

#include <tuple>

#include "lib/base/clock.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/snapshot.h"
#include "trace/packets/packet_line.h"
#include "trace/run/snapshot_sink.h"
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

void handlePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    if (!offlineRun.begun) {
        begin(time);
    } else if (isLater(time, offlineRun.nextSnapshotTime)) {
        handOn(offlineRun.nextSnapshotTime);
        offlineRun.nextSnapshotTime = afterInterval(offlineRun.nextSnapshotTime);
    }
    offlineRun.lastPacketTime = time;
    packetEnter(time, ip, length);
}

}  // namespace

void runOffline() {
    offlineRun = {};
    runCaptureLoop(captureState.captureHandle, handlePacket, 0);
    handOn(offlineRun.lastPacketTime);
    if (snapshotSink.end != nullptr) snapshotSink.end();
}
