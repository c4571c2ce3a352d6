#include "trace/capture/frame.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

struct Handed {
    TimeSpec time;
    Bytes ip;

    bool operator==(const Handed&) const = default;
};

std::vector<Handed> handed;

void takePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    handed.push_back({time, Bytes(ip, ip + length)});
}

// Hands over a frame of which `bytes` were captured.
void deliver(const Bytes& bytes, timeval time = {}) {
    CaptureContext context = {takePacket};
    const auto sizeBytes = static_cast<bpf_u_int32>(bytes.size());
    const pcap_pkthdr header = {.ts = time, .caplen = sizeBytes, .len = 0xffffffff};
    frameHandler(reinterpret_cast<u_char*>(&context), &header, bytes.data());
}

Bytes counting(size_t sizeBytes) {
    Bytes bytes(sizeBytes);
    for (size_t i = 0; i < sizeBytes; ++i) {
        bytes[i] = static_cast<uint8_t>(i + 1);
    }
    return bytes;
}

struct Frame : testing::Test {
    Frame() { handed.clear(); }
    ~Frame() override { resetCapture(); }

    TraceRun run;
};

TEST_F(Frame, CarriesAnyTimeStamp) {
    const struct {
        timeval stamp;
        TimeSpec time;
    } cases[] = {
        {{1700000000, 999999}, {1700000000, 999999000}},
        {{-1, 5}, {-1, 5000}},
        {{2147483648, 0}, {-2147483647 - 1, 0}},
        {{0, -1}, {0, 4294966296}},
        {{0, 4294967295}, {0, 4294966296}},
    };
    for (const auto& [stamp, time] : cases) {
        SCOPED_TRACE(stamp.tv_sec);
        handed.clear();
        deliver(counting(20), stamp);
        EXPECT_EQ(handed, (std::vector<Handed>{{time, counting(20)}}));
    }
}

TEST_F(Frame, IsLeftAloneInTheShutdown) {
    const Folder folder;
    captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535);
    ASSERT_TRUE(captureFileOpen(captureState.captureHandle, folder.path("save").c_str()));
    captureState.savingFrames = true;
    captureState.shuttingDown = true;
    deliver(counting(20));
    deliver({});
    EXPECT_EQ(handed, std::vector<Handed>());
    EXPECT_EQ(run.logged(), Lines());
    EXPECT_EQ(captureFileBytes(), kCaptureHeadBytes);
}

}  // namespace
