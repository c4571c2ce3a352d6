// A run of the packet analysis for tests: a tree of statistics of its own, the log lines of the
// run, and the whole tree as text. Tests compare all of it, so that a counter changed by mistake is
// noticed.
//
// A line of the text is one record: its kind and key, "live" where it is marked, and its counters
// in the order of their declaration; a host has its epoch, sequence number and reliability before
// them. Records of a kind are in the order of their lines.
//
//     port 7500 live
//      net 239.1.1.1 live
//       host 10.0.0.1:7001 live 2147483649 1 0 1 59 0 0 0 0 0
//       subject A.B live
//        from 10.0.0.1:7001 live 1 59
//       held 1 in 60
//      rl 10.0.0.1:7001 live 0 0 1 0 3 0 0 0
//      ptp 10.0.0.1:7001 live 0 0 0 0 0 0 0 0 0 0 1 0
//
// Only one run may exist at a time.

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

  private:
    char* logText_ = nullptr;
    size_t logBytes_ = 0;
    FILE* log_ = nullptr;
    size_t logTaken_ = 0;
    bool complainBefore_;
};

void analyze(const std::vector<Bytes>& packets);

// The lines that begin like that, all by default.
Lines treeText(const std::string& begin = "");

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

    // By a name in the folder, or an absolute path.
    void open(const char* name) {
        path = name[0] == '/' ? name : folder.path(name);
        traceSettings.writeFile = path.c_str();
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        captureState.savingFrames = true;
    }

    TraceRun run;
    const Folder folder;
    std::string path;
};

// Capture files built byte by byte in libpcap's classic format, in either byte order.

struct SavedFrame {
    int32_t seconds;
    uint32_t microseconds;
    Bytes bytes;
};

struct CaptureStyle {
    bool bigEndian = false;
    bool nanoseconds = false;  // fractions of time stamps are nanoseconds
    uint32_t snapshotBytes = 65535;
    uint32_t linkType = 1;  // Ethernet
};

constexpr size_t kCaptureHeadBytes = 24;
constexpr size_t kRecordHeadBytes = 16;

[[nodiscard]] std::string captureText(const std::vector<SavedFrame>& frames,
                                      const CaptureStyle& style = {});
