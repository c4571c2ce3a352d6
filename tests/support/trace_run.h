// A run of the packet analysis for tests: statistics of its own, its log lines, and its reports, of
// which tests compare all lines, so that a counter changed by mistake is noticed. Only one run may
// exist at a time.

#pragma once

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test.h"
#include "trace/capture/capture_file.h"
#include "trace/capture/capture_session.h"
#include "trace/capture/capture_state.h"
#include "trace/capture/frame.h"
#include "trace/settings.h"

using Lines = std::vector<std::string>;

class TraceRun : public NoCopy {
  public:
    explicit TraceRun(bool complain = true);
    ~TraceRun();

    // What was logged since the last call, without time stamps and program name.
    Lines logged();

    // Takes a Snapshot: all tables with their hosts and host messages. Earlier log lines are gone.
    Lines report();

  private:
    char* logText_ = nullptr;
    size_t logBytes_ = 0;
    FILE* log_ = nullptr;
    size_t logTaken_ = 0;
    bool complainBefore_;
};

void analyze(const std::vector<Bytes>& packets);

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

// A run that saves its frames, without a capture: the state, the frame handler, and a file in a
// folder of its own. At the end all is as at the start of the process.
struct SavingRun : testing::Test {
    SavingRun() { captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535); }
    ~SavingRun() override {
        resetCapture();
        traceSettings = {};
    }

    void open(const char* name) {
        path = folder.path(name);
        traceSettings.writeFile = path.c_str();
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        captureState.savingFrames = true;
    }

    TraceRun run;
    const Folder folder;
    std::string path;
};

// In a capture file.
constexpr size_t kCaptureHeadBytes = 24;
constexpr size_t kRecordHeadBytes = 16;
