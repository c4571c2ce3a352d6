#include "trace/capture_session.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"
#include "trace/capture_state.h"

namespace {

using Texts = std::vector<const char*>;

const std::string kThin = "subject based information will not be accurate";
const std::string kSwapped = "Note: swapped save file";
const std::string kVersion = "savefile created by pcap version 2.4";

std::vector<SnapTime> times;
size_t totalBytes;

void takePacket(SnapTime time, const uint8_t*, size_t length) {
    times.push_back(time);
    totalBytes += length;
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

std::string captureOf(const CaptureStyle& style) {
    return captureText({{100, 1, udpFrame(7500)}, {101, 2, tcpFrame()}, {102, 3, udpFrame(9)}},
                       style);
}

struct CaptureSession : testing::Test {
    CaptureSession() {
        times.clear();
        totalBytes = 0;
    }
    ~CaptureSession() override { close(); }

    void close() {
        if (capture != nullptr) pcap_close(capture);
        capture = nullptr;
    }

    bool open(const std::string& text) {
        close();
        writeFile(path, text);
        capture = openOffline(path.c_str());
        return capture != nullptr;
    }

    // What goes to the standard output stream on the way.
    std::string filter(const char* text, bool installs) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(installFilter(capture, text), installs);
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    TraceRun run;
    const Folder folder;
    const std::string path = folder.path("in");
    pcap_t* capture = nullptr;
};

TEST(BuildFilter, JoinsWhatTheListsHold) {
    const struct {
        Texts src, dst, ports;
        std::string filter;
    } cases[] = {
        {{}, {}, {}, "udp"},
        {{}, {}, {"7500"}, "udp and (port (7500))"},
        {{}, {}, {"7500", "7501"}, "udp and (port (7500 or 7501))"},
        {{"A"}, {}, {}, "udp and (src (A))"},
        {{}, {"B"}, {}, "udp and (dst (B))"},
        {{"A"}, {"B"}, {}, "udp and (src (A) or dst (B))"},
        {{"A", "C"}, {"B", "D"}, {"1"}, "udp and (port (1)) and (src (A or C) or dst (B or D))"},
        {{}, {}, {"x,y", ""}, "udp and (port (x,y or ))"},
    };
    for (const auto& [src, dst, ports, filter] : cases) {
        EXPECT_EQ(buildFilter(src, dst, ports), filter);
    }
}

TEST_F(CaptureSession, ReadsSavedCapturesOfEitherByteOrder) {
    const std::string thin = "savefile snapshot size (1517) was less than full packet";
    const struct {
        CaptureStyle style;
        Lines logged;
    } cases[] = {
        {{}, {kVersion, ""}},
        {{.bigEndian = true}, {kSwapped, "", kVersion, ""}},
        {{.snapshotBytes = 1518}, {kVersion, ""}},
        {{.snapshotBytes = 1517}, {thin, kThin, kVersion, ""}},
        {{.bigEndian = true, .snapshotBytes = 1517}, {thin, kThin, kSwapped, "", kVersion, ""}},
    };
    for (const auto& [style, logged] : cases) {
        times.clear();
        ASSERT_TRUE(open(captureOf(style)));
        EXPECT_EQ(run.logged(), logged);
        EXPECT_EQ(filter("udp", true), "Using filter udp\n");
        runCaptureLoop(capture, takePacket, 1);
        EXPECT_EQ(times, (std::vector<SnapTime>{{100, 1000}}));
        runCaptureLoop(capture, takePacket, 0);
        EXPECT_EQ(times, (std::vector<SnapTime>{{100, 1000}, {102, 3000}}));
        EXPECT_EQ(run.logged(), Lines());
    }
}

TEST_F(CaptureSession, CutsNanosecondStampsToMicroseconds) {
    const SavedFrame frame = {100, 123456789, udpFrame(7500)};
    ASSERT_TRUE(open(captureText({frame}, {.nanoseconds = true})));
    runCaptureLoop(capture, takePacket, 0);
    EXPECT_EQ(times, (std::vector<SnapTime>{{100, 123456000}}));
}

TEST_F(CaptureSession, StopsWhereARecordIsCutOrMakesNoSense) {
    const std::string whole = captureOf({});
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
        times.clear();
        ASSERT_TRUE(open(text));
        (void)run.logged();
        runCaptureLoop(capture, takePacket, 0);
        EXPECT_EQ(times.size(), packets);
        const Lines logged = run.logged();
        ASSERT_EQ(logged.size(), 1u);
        EXPECT_TRUE(logged[0].starts_with("pcap_loop: "));
    }
}

TEST_F(CaptureSession, RefusesWhatIsNoCapture) {
    for (const std::string& text : {std::string(), std::string("not a capture, but long enough")}) {
        EXPECT_FALSE(open(text));
        EXPECT_TRUE(run.logged().at(0).starts_with("pcap_open_offline: "));
    }
    EXPECT_EQ(openOffline(folder.path("none").c_str()), nullptr);
    EXPECT_TRUE(run.logged().at(0).starts_with("pcap_open_offline: "));
    EXPECT_EQ(openLive("no such interface"), nullptr);
    EXPECT_TRUE(run.logged().at(0).starts_with("pcap_open_live: "));
}

TEST_F(CaptureSession, LetsEverythingThroughWhenTheFilterIsRefused) {
    ASSERT_TRUE(open(captureOf({})));
    (void)run.logged();
    EXPECT_EQ(filter("udp and (port (x,y))", false), "Using filter udp and (port (x,y))\n");
    EXPECT_TRUE(run.logged().at(0).starts_with("pcap_compile: "));
    runCaptureLoop(capture, takePacket, 0);
    EXPECT_EQ(times.size(), 3u);
}

TEST_F(CaptureSession, SavesWhatPassesTheFilter) {
    const std::string saved = folder.path("out");
    writeFile(saved, "an older file, longer than what comes");
    ASSERT_TRUE(open(captureOf({.bigEndian = true, .snapshotBytes = 2000})));
    (void)filter("port 9", true);
    captureState.dumpHandle = openDump(capture, saved.c_str());
    captureState.savingFrames = true;
    runCaptureLoop(capture, takePacket, 0);
    closeDump(captureState.dumpHandle);
    captureState.dumpHandle = nullptr;
    captureState.savingFrames = false;

    EXPECT_EQ(readFile(saved), captureText({{102, 3, udpFrame(9)}}, {.snapshotBytes = 2000}));
    EXPECT_EQ(captureState.captureBytes, readFile(saved).size());
    captureState.captureBytes = 0;

    (void)run.logged();
    EXPECT_EQ(openDump(capture, folder.path("none/out").c_str()), nullptr);
    EXPECT_TRUE(run.logged().at(0).starts_with("pcap_dump_open: "));
}

}  // namespace
