#include "trace/capture_session.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

using Texts = std::vector<const char*>;

std::vector<SnapTime> times;

void takePacket(SnapTime time, const uint8_t*, size_t) {
    times.push_back(time);
}

Bytes udpFrame(uint16_t port) {
    PacketHead head;
    head.dstPort = port;
    return ethernetFrame(udpPacket(head, Bytes(40)));
}

Bytes tcpFrame() {
    Bytes frame = udpFrame(7500);
    frame[14 + 9] = 6;
    return frame;
}

std::string threeFrames(const CaptureStyle& style = {}) {
    return captureText({{100, 1, udpFrame(7500)}, {101, 2, tcpFrame()}, {102, 3, udpFrame(9)}},
                       style);
}

struct CaptureSession : testing::Test {
    ~CaptureSession() override { resetCapture(); }

    pcap_t* open(const std::string& text) {
        resetCapture();
        times.clear();
        writeFile(path, text);
        captureState.captureHandle = openOffline(path.c_str());
        return captureState.captureHandle;
    }

    TraceRun run;
    const Folder folder;
    const std::string path = folder.path("in");
};

TEST(BuildFilter, JoinsWhatTheListsHold) {
    const struct {
        Texts src, dst, ports;
        std::string filter;
    } cases[] = {
        {{}, {}, {}, "udp"},
        {{}, {}, {"7500", "7501"}, "udp and (port (7500 or 7501))"},
        {{}, {"B"}, {}, "udp and (dst (B))"},
        {{"A", "C"}, {"B", "D"}, {"1"}, "udp and (port (1)) and (src (A or C) or dst (B or D))"},
        {{}, {}, {"x,y", ""}, "udp and (port (x,y or ))"},
    };
    for (const auto& [src, dst, ports, filter] : cases) {
        EXPECT_EQ(buildFilter(src, dst, ports), filter);
    }
}

TEST_F(CaptureSession, ReadsSavedCapturesOfEitherByteOrder) {
    const std::string version = "savefile created by pcap version 2.4";
    const std::string thin = "savefile snapshot size (1517) was less than full packet";
    const std::string inaccurate = "subject based information will not be accurate";
    const struct {
        CaptureStyle style;
        Lines logged;
    } cases[] = {
        {{.snapshotBytes = 1518}, {version, ""}},
        {{.bigEndian = true, .snapshotBytes = 1517},
         {thin, inaccurate, "Note: swapped save file", "", version, ""}},
    };
    for (const auto& [style, logged] : cases) {
        pcap_t* capture = open(threeFrames(style));
        ASSERT_NE(capture, nullptr);
        EXPECT_EQ(run.logged(), logged);
        testing::internal::CaptureStdout();
        EXPECT_TRUE(installFilter(capture, "udp"));
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Using filter udp\n");
        runCaptureLoop(capture, takePacket, 1);
        EXPECT_EQ(times, (std::vector<SnapTime>{{100, 1000}}));
        runCaptureLoop(capture, takePacket, 0);
        EXPECT_EQ(times, (std::vector<SnapTime>{{100, 1000}, {102, 3000}}));
        EXPECT_EQ(run.logged(), Lines());
    }
}

TEST_F(CaptureSession, CutsNanosecondStampsToMicroseconds) {
    const SavedFrame frame = {100, 123456789, udpFrame(7500)};
    runCaptureLoop(open(captureText({frame}, {.nanoseconds = true})), takePacket, 0);
    EXPECT_EQ(times, (std::vector<SnapTime>{{100, 123456000}}));
}

TEST_F(CaptureSession, StopsWhereARecordIsCutOrMakesNoSense) {
    const std::string whole = threeFrames();
    std::string hugeRecord = captureText({{100, 1, udpFrame(7500)}});
    hugeRecord += std::string(8, '\0') + std::string(8, '\xff');
    const struct {
        std::string text;
        size_t packets;
    } cases[] = {
        {whole.substr(0, whole.size() - 1), 2},
        {whole.substr(0, kCaptureHeadBytes + kRecordHeadBytes - 1), 0},
        {hugeRecord, 1},
    };
    for (const auto& [text, packets] : cases) {
        pcap_t* capture = open(text);
        ASSERT_NE(capture, nullptr);
        (void)run.logged();
        runCaptureLoop(capture, takePacket, 0);
        EXPECT_EQ(times.size(), packets);
        const Lines logged = run.logged();
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_TRUE(logged[0].starts_with("pcap_loop: "));
    }
}

}  // namespace
