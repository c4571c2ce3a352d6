#include "trace/live_run.h"

#include "lib/base/clock.h"
#include "trace/capture_session.h"
#include "trace/capture_state.h"
#include "trace/classify.h"
#include "trace/report.h"
#include "trace/snapshot.h"

namespace {

void handlePacket(SnapTime, const uint8_t* ip, size_t length) {
    analyzePacket(ip, length);
}

}  // namespace

void runLiveCapture() {
    runCaptureLoop(captureState.captureHandle, handlePacket, 0);
}

void onSnapshotTimer() {
    if (captureShuttingDown()) return;
    TimeSpec now;
    clockNow(&now);
    SnapHeader* const snapshot = snapshotTake({now.seconds, now.nanoseconds});
    if (snapshot != nullptr) printSnapshot(snapshot);
}
