// The capture's state as it was at the start of the process: files closed, nothing saved.

#pragma once

#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"

inline void resetCapture() {
    if (captureState.dumpHandle != nullptr) closeDump(captureState.dumpHandle);
    if (captureState.captureHandle != nullptr) pcap_close(captureState.captureHandle);
    captureState.dumpHandle = nullptr;
    captureState.captureHandle = nullptr;
    captureState.captureBytes = 0;
    captureState.savingFrames = false;
    captureState.shuttingDown = false;
}
