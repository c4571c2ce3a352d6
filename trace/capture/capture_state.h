// The source that a run captures from, and the flag that ends capture.
//
// Ownership: the source is never closed, the end of the process takes it.

#pragma once

#include <pcap/pcap.h>

#include <atomic>

struct CaptureState {
    // Constant once start-up is over, and written before the capture thread starts.
    pcap_t* captureHandle = nullptr;
    const char* interfaceName = nullptr;  // of a live source
    bool savingFrames = false;  // a capture file was opened; spares a run without one its lock

    // Set once, first thing of the shutdown. It orders nothing, hence relaxed: a thread that shares
    // data with the shutdown synchronises by the lock of that data.
    std::atomic<bool> shuttingDown = false;
};

extern CaptureState captureState;

[[nodiscard]] inline bool captureShuttingDown() {
    return captureState.shuttingDown.load(std::memory_order_relaxed);
}
