#include "trace/capture/capture_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

std::vector<TimeSpec> times;

void takePacket(TimeSpec time, const uint8_t*, size_t) {
    times.push_back(time);
}

SavedFrame someFrame(uint32_t fraction = 0) {
    return {100, fraction, ethernetFrame(udpPacket({}, Bytes(40)))};
}

struct CaptureSession : testing::Test {
    ~CaptureSession() override { resetCapture(); }

    // Hands over what the capture holds.
    void read(const std::string& text) {
        writeFile(path, text);
        captureState.captureHandle = openOffline(path.c_str());
        ASSERT_NE(captureState.captureHandle, nullptr);
        times.clear();
        (void)run.logged();
        runCaptureLoop(captureState.captureHandle, takePacket, 0);
        resetCapture();
    }

    TraceRun run;
    const Folder folder;
    const std::string path = folder.path("in");
};

// libpcap maps the kernel's buffer; its size shows nowhere else.
TEST_F(CaptureSession, CapturesIntoALargeBuffer) {
    testing::internal::CaptureStdout();
    captureState.captureHandle = openLive("lo");
    (void)testing::internal::GetCapturedStdout();
    if (captureState.captureHandle == nullptr) GTEST_SKIP() << "no live capture is permitted here";
    std::ifstream maps("/proc/self/maps");
    uint64_t mostBytes = 0;
    for (std::string line; std::getline(maps, line);) {
        uint64_t begin = 0;
        uint64_t end = 0;
        if (line.find("socket:") == std::string::npos) continue;
        ASSERT_EQ(std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64, &begin, &end), 2);
        mostBytes = std::max(mostBytes, end - begin);
    }
    EXPECT_GE(mostBytes, 31u << 20);
}

TEST_F(CaptureSession, CutsNanosecondStampsToMicroseconds) {
    read(captureText({someFrame(123456789)}, {.nanoseconds = true}));
    EXPECT_EQ(times, (std::vector<TimeSpec>{{100, 123456000}}));
}

TEST_F(CaptureSession, StopsWhereARecordIsCutOrMakesNoSense) {
    const std::string whole = captureText({someFrame(), someFrame()});
    const std::string hugeRecord = whole + std::string(8, '\0') + std::string(8, '\xff');
    const struct {
        std::string text;
        size_t packets;
    } cases[] = {
        {whole.substr(0, whole.size() - 1), 1},
        {whole.substr(0, kCaptureHeadBytes + kRecordHeadBytes - 1), 0},
        {hugeRecord, 2},
    };
    for (const auto& [text, packets] : cases) {
        read(text);
        EXPECT_EQ(times.size(), packets);
        const Lines logged = run.logged();
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_TRUE(logged[0].starts_with("pcap_loop: "));
    }
}

}  // namespace
