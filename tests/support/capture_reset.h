// Resets the capture's state to that at the start of the process: files closed, nothing saved.

#pragma once

#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"

inline void resetCapture() {
    captureFileClose();
    if (captureState.captureHandle != nullptr) pcap_close(captureState.captureHandle);
    captureState.captureHandle = nullptr;
    captureState.savingFrames = false;
    captureState.shuttingDown = false;
}
