// What a run has open for capture: the source, the file that saves frames, and the flag that ends
// both.
//
// Ownership: the source is never closed, the end of the process takes it. The capture file is
// closed by a rotation, which opens it anew, and by the shutdown.

#pragma once

#include <pcap/pcap.h>

#include <atomic>
#include <cstdint>

struct CaptureState {
    // Constant once start-up is over, and written ahead of the capture thread.
    pcap_t* captureHandle = nullptr;
    bool savingFrames = false;  // a capture file was opened; spares a run without one its lock

    // Guarded by `statsLock` while capture runs.
    pcap_dumper_t* dumpHandle = nullptr;  // none once a rotation couldn't open it anew
    uint64_t captureBytes = 0;            // its size after the last frame written

    // Set once, first thing of the shutdown. It orders nothing, hence relaxed: whoever shares data
    // with the shutdown meets it at the lock of that data.
    std::atomic<bool> shuttingDown = false;
};

extern CaptureState captureState;

[[nodiscard]] inline bool captureShuttingDown() {
    return captureState.shuttingDown.load(std::memory_order_relaxed);
}
