// The capture's state and its frame handler, without a capture.

#pragma once

#include "tests/support/packet_builder.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/capture/frame.h"

// Gives the frame to the handler; was it handed on? On the wire it was longer than anything.
inline bool handleFrame(const Bytes& frame) {
    static thread_local bool handedOn;
    handedOn = false;
    CaptureContext context = {[](TimeSpec, const uint8_t*, size_t) { handedOn = true; }};
    const auto sizeBytes = static_cast<bpf_u_int32>(frame.size());
    const pcap_pkthdr header = {.ts = {}, .caplen = sizeBytes, .len = UINT32_MAX};
    frameHandler(reinterpret_cast<u_char*>(&context), &header, frame.data());
    return handedOn;
}

// To the state at the start of the process: files closed, nothing saved.
inline void resetCapture() {
    captureFileClose();
    if (captureState.captureHandle != nullptr) pcap_close(captureState.captureHandle);
    captureState.captureHandle = nullptr;
    captureState.savingFrames = false;
    captureState.shuttingDown = false;
}
