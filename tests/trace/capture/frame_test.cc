#include "trace/capture/frame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/capture_file.h"
#include "tests/support/capture_reset.h"
#include "tests/support/packet_builder.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

const std::string kNoEthernet = "Packet too small to contain Ethernet header";

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

// An Ethernet header without its type: MACs 1:2:3:4:5:6 and a:b:c:d:e:f.
Bytes macs() {
    return {1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 14, 15};
}

Bytes counting(size_t sizeBytes) {
    Bytes bytes(sizeBytes);
    for (size_t i = 0; i < sizeBytes; ++i) {
        bytes[i] = static_cast<uint8_t>(i + 1);
    }
    return bytes;
}

Lines noIp(const std::string& length) {
    return {"Ethernet/IP packet too small to contain IP header", "    Length: " + length,
            "    Source: 0a:0b:0c:0d:0e:0f", "    Dest:   01:02:03:04:05:06"};
}

struct Frame : testing::Test {
    Frame() {
        handed.clear();
        captureState.captureHandle = pcap_open_dead(DLT_EN10MB, 65535);
    }
    ~Frame() override { resetCapture(); }

    void saveTo(const std::string& path) {
        ASSERT_TRUE(captureFileOpen(captureState.captureHandle, path.c_str()));
        captureState.savingFrames = true;
    }

    TraceRun run;
};

TEST_F(Frame, IsStrippedToItsIpPacket) {
    const Bytes ipType = {8, 0};
    const Bytes arpType = {8, 6};
    const Bytes twenty = counting(20);
    const struct {
        const char* what;
        Bytes frame;
        std::vector<Handed> handed;
        Lines logged;
    } cases[] = {
        {"empty", {}, {}, {kNoEthernet}},
        {"13 of bare IP", counting(13), {}, {kNoEthernet}},
        {"no IP", joined({macs(), ipType}), {}, noIp("0")},
        {"19 of IP", joined({macs(), ipType, counting(19)}), {}, noIp("19")},
        {"20 of IP", joined({macs(), ipType, twenty}), {{{}, twenty}}, {}},
        {"19 of another type", joined({macs(), arpType, counting(5)}), {}, noIp("19")},
        {"20 of another type",
         joined({macs(), arpType, counting(6)}),
         {{{}, joined({macs(), arpType, counting(6)})}},
         {}},
        {"bare IP", twenty, {{{}, twenty}}, {}},
    };
    for (const auto& [what, frame, expected, logged] : cases) {
        SCOPED_TRACE(what);
        handed.clear();
        deliver(frame);
        EXPECT_EQ(handed, expected);
        EXPECT_EQ(run.logged(), logged);
    }
}

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

TEST_F(Frame, IsSavedWhateverItIs) {
    const Folder folder;
    const std::string path = folder.path("save");
    saveTo(path);
    for (const Bytes& frame : {Bytes(), counting(13), counting(20)}) {
        deliver(frame, {7, 8});
    }
    const size_t savedBytes = kCaptureHeadBytes + 3 * kRecordHeadBytes + 13 + 20;
    EXPECT_EQ(captureFileBytes(), savedBytes);
    EXPECT_EQ(handed.size(), 1u);

    captureFileClose();  // as after a rotation that failed to open it anew
    deliver(counting(20));
    EXPECT_EQ(handed.size(), 2u);
    EXPECT_EQ(readFile(path).size(), savedBytes);
}

TEST_F(Frame, IsLeftAloneInTheShutdown) {
    const Folder folder;
    saveTo(folder.path("save"));
    captureState.shuttingDown = true;
    deliver(counting(20));
    deliver({});
    EXPECT_EQ(handed, std::vector<Handed>());
    EXPECT_EQ(run.logged(), Lines());
    EXPECT_EQ(captureFileBytes(), kCaptureHeadBytes);
}

}  // namespace
