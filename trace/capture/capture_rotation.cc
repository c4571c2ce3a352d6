#include "trace/capture/capture_rotation.h"

#include <cstdint>
#include <utility>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/base/numbered_ring.h"
#include "lib/base/path.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_state.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

namespace {

// Once the timer thread runs, only that touches these.
NumberedRing ring = {};
bool renameFails = false;  // the last rename failed, and that was logged

bool fileReachesLimit() {
    const uint64_t sizeBytes = fileSize64(traceSettings.writeFile);
    return sizeBytes != kFileSizeUnknown64 && sizeBytes >= traceSettings.captureLimitBytes;
}

// The file system is asked only while what was saved lies below the limit: it sees what others
// wrote.
bool isFullLocked() {
    if (!captureFileIsRegular()) return false;
    return captureFileBytes() >= traceSettings.captureLimitBytes || fileReachesLimit();
}

// True where the path is free for a new file. After a failed rename the file goes on, unless
// somebody has taken it away.
bool moveAside() {
    char numberedName[kCaptureNameBytes];
    const bool failed = numberedRingMoveAside(ring, numberedName) == RotationResult::kRenameFailed;
    const bool told = std::exchange(renameFails, failed);
    if (!failed) return true;
    if (!told) {
        logPrint("failed to rename raw data file '%s' to '%s' during data file rotation.",
                 ring.path, numberedName);
    }
    return fileSize64(ring.path) == kFileSizeUnknown64;
}

void reopenLocked(const char* complaint) {
    if (!captureFileReopen(traceSettings.writeFile)) logPrint(complaint, traceSettings.writeFile);
}

// The file is moved while it is open, and the frames in the buffer follow it when it is closed: on
// a full disk they then find the room of the numbered file that was removed.
void rotateWhenFull() {
    const LockGuard guard(statsLock);
    if (!captureFileIsOpen() || !isFullLocked()) return;
    if (moveAside()) reopenLocked("failed to open raw data file '%s'");
}

void startOverWhenFull() {
    if (!fileReachesLimit()) return;
    const LockGuard guard(statsLock);
    if (captureFileIsOpen() && captureFileIsRegular())
        reopenLocked("failed to open save file '%s'");
}

}  // namespace

void captureRotationStart() {
    ring = {.path = traceSettings.writeFile, .count = traceSettings.captureMaxRotations};
    renameFails = false;
}

void onRotationTimer() {
    if (captureShuttingDown()) return;
    if (traceSettings.captureMaxRotations == 0) {
        startOverWhenFull();
    } else {
        rotateWhenFull();
    }
}
