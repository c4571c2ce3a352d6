#include "trace/capture/frame.h"

#include <gtest/gtest.h>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

size_t handed = 0;

// Hands over a frame of which `bytes` were captured.
void deliver(const Bytes& bytes) {
    CaptureContext context = {[](TimeSpec, const uint8_t*, size_t) { ++handed; }};
    const auto sizeBytes = static_cast<bpf_u_int32>(bytes.size());
    const pcap_pkthdr header = {.ts = {}, .caplen = sizeBytes, .len = 0xffffffff};
    frameHandler(reinterpret_cast<u_char*>(&context), &header, bytes.data());
}

struct Frame : testing::Test {
    Frame() { handed = 0; }
    ~Frame() override { resetCapture(); }

    TraceRun run;
};

TEST_F(Frame, IsLeftAloneInTheShutdown) {
    const Folder folder;
    captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535);
    ASSERT_TRUE(captureFileOpen(captureState.captureHandle, folder.path("save").c_str()));
    captureState.savingFrames = true;
    captureState.shuttingDown = true;
    deliver(Bytes(20));
    deliver({});
    EXPECT_EQ(handed, 0u);
    EXPECT_EQ(run.logged(), Lines());
    EXPECT_EQ(captureFileBytes(), kCaptureHeadBytes);
}

}  // namespace
