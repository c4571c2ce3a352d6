#include "trace/run/snapshot_sink.h"

#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/settings.h"

SnapshotSink snapshotSink;

namespace {

// What the source had reported by the last Snapshot that was handed on.
CaptureDrops reportedDrops;

// libpcap's numbers wrap around at 32 bits.
void fillDrops(SnapSource& source) {
    CaptureDrops drops{};
    if (!captureDrops(captureState.captureHandle, &drops)) return;
    source.kernelDrops = drops.kernel - reportedDrops.kernel;
    source.interfaceDrops = drops.interface - reportedDrops.interface;
    reportedDrops = drops;
}

void fillSource(SnapSource& source) {
    if (traceSettings.liveCapture) return fillDrops(source);
    const SavedExtent extent = savedCaptureExtent();
    source.readBytes = extent.readBytes;
    source.fileBytes = extent.fileBytes;
}

}  // namespace

void snapshotHandOn(TimeSpec time) {
    SnapHeader* const snapshot = snapshotTake(time);
    captureFileFlush();
    if (snapshot == nullptr) return;
    if (snapshotSink.wantsSource) fillSource(snapshot->source);
    if (snapshotSink.fillSource != nullptr) snapshotSink.fillSource(&snapshot->source);
    snapshotSink.take(snapshot);
}
