#include "trace/capture/capture_rotation.h"

#include <cstdint>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/numbered_ring.h"
#include "lib/base/path.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

constexpr size_t kNumberedNameBytes = 260;

NumberedRing ring = {};  // of the timer thread, once it runs

bool fileReachesLimit() {
    const uint64_t sizeBytes = fileSize64(traceSettings.writeFile);
    return sizeBytes != kFileSizeUnknown64 && sizeBytes >= traceSettings.captureLimitBytes;
}

// The file system is asked only while the position lies below: it sees what the position doesn't.
bool isFullLocked() {
    return captureState.captureBytes >= traceSettings.captureLimitBytes || fileReachesLimit();
}

void moveAside() {
    char numberedName[kNumberedNameBytes];
    if (numberedRingMoveAside(ring, numberedName) != RotationResult::kRenameFailed) return;
    logPrint("failed to rename raw data file '%s' to '%s' during data file rotation.", ring.path,
             numberedName);
}

void reopenLocked(const char* complaint) {
    captureState.captureBytes = 0;
    captureState.dumpHandle = openDump(captureState.captureHandle, traceSettings.writeFile);
    if (captureState.dumpHandle == nullptr) logPrint(complaint, traceSettings.writeFile);
}

void rotateWhenFull() {
    const LockGuard guard(statsLock);
    if (captureState.dumpHandle == nullptr || !isFullLocked()) return;
    closeDump(captureState.dumpHandle);
    moveAside();
    reopenLocked("failed to open raw data file '%s'");
}

void startOverWhenFull() {
    if (!fileReachesLimit()) return;
    const LockGuard guard(statsLock);
    if (captureState.dumpHandle == nullptr) return;
    closeDump(captureState.dumpHandle);
    reopenLocked("failed to open save file '%s'");
}

}  // namespace

void captureRotationStart() {
    ring = {.path = traceSettings.writeFile, .count = traceSettings.captureMaxRotations};
}

void onRotationTimer() {
    if (captureShuttingDown()) return;
    if (traceSettings.captureMaxRotations == 0) {
        startOverWhenFull();
    } else {
        rotateWhenFull();
    }
}
