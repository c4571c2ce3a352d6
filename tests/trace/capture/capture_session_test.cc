#include "trace/capture/capture_session.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "tests/support/scratch_folder.h"
#include "tests/support/trace_run.h"

namespace {

struct Reading {
    std::vector<std::pair<TimeSpec, Bytes>> packets;
    bool failed = false;

    bool operator==(const Reading&) const = default;
};

Reading taken;

void takePacket(TimeSpec time, const uint8_t* ip, size_t length) {
    taken.packets.push_back({time, Bytes(ip, ip + length)});
}

// A capture as libpcap writes it. The other byte order is a whole-program case.
std::string captureText(const std::vector<Bytes>& frames,
                        int snapshotBytes = 262144,
                        int linkType = DLT_EN10MB,
                        u_int precision = PCAP_TSTAMP_PRECISION_MICRO) {
    char* text = nullptr;
    size_t sizeBytes = 0;
    pcap_t* const capture =
        pcap_open_dead_with_tstamp_precision(linkType, snapshotBytes, precision);
    pcap_dumper_t* const dumper = pcap_dump_fopen(capture, open_memstream(&text, &sizeBytes));
    pcap_pkthdr head = {.ts = {100, 0}, .caplen = 0, .len = 0};
    for (const Bytes& frame : frames) {
        head.caplen = head.len = static_cast<bpf_u_int32>(frame.size());
        pcap_dump(reinterpret_cast<u_char*>(dumper), &head, frame.data());
        ++head.ts.tv_usec;
    }
    pcap_dump_close(dumper);
    pcap_close(capture);
    std::string all(text, sizeBytes);
    std::free(text);
    return all;
}

// More than the process reads at once, of frames that end anywhere in it; a few are larger than the
// largest datagram.
std::vector<Bytes> manyFrames() {
    std::vector<Bytes> frames;
    for (uint32_t number = 0; number < 2000; ++number) {
        const size_t sizeBytes =
            number % 300 == 299 ? 69'600 + number / 20 : 60 + number * 7 % 1400;
        frames.emplace_back(sizeBytes, static_cast<uint8_t>(number));
    }
    return frames;
}

// One frame of each kind that "udp" distinguishes, whole and cut within the heads.
std::vector<Bytes> framesOfProtocols() {
    const Bytes udp = ethernetFrame(udpPacket({}, Bytes(40)));
    const Bytes ipv6 = patched(udp, 12, be16(0x86dd));
    const Bytes kinds[] = {udp, patched(udp, 23, {6}), patched(udp, 12, be16(0x0806)), ipv6,
                           patched(ipv6, 20, {17})};
    std::vector<Bytes> frames;
    for (const Bytes& kind : kinds) {
        for (const size_t sizeBytes : {kind.size(), size_t{34}, size_t{24}, size_t{23}})
            frames.push_back(cut(kind, sizeBytes));
    }
    return frames;
}

Reading libpcapReads(const std::string& path, const char* filter) {
    taken = {};
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const capture = pcap_open_offline(path.c_str(), error);
    bpf_program program;
    EXPECT_EQ(pcap_compile(capture, &program, filter, 0, 0), 0);
    EXPECT_EQ(pcap_setfilter(capture, &program), 0);
    CaptureContext context = {takePacket};
    taken.failed = pcap_loop(capture, 0, frameHandler, reinterpret_cast<u_char*>(&context)) < 0;
    pcap_freecode(&program);
    pcap_close(capture);
    return taken;
}

struct CaptureSession : testing::Test {
    ~CaptureSession() override { resetCapture(); }

    // Hands over what the capture holds.
    void read(const std::string& source, const char* filter) {
        captureState.captureHandle = openOffline(source.c_str());
        ASSERT_NE(captureState.captureHandle, nullptr);
        testing::internal::CaptureStdout();  // the filter is printed
        EXPECT_TRUE(installFilter(captureState.captureHandle, filter));
        (void)testing::internal::GetCapturedStdout();
        taken = {};
        (void)run.logged();
        runCaptureLoop(captureState.captureHandle, takePacket, 0);
        for (const std::string& text : run.logged())
            taken.failed |= text.starts_with("pcap_loop: ");
        resetCapture();
    }

    // In pieces that end anywhere.
    void readFromPipe(const std::string& text, const char* filter) {
        const std::string pipe = folder.path("pipe");
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        std::thread writer([&] {
            std::ofstream out(pipe);
            for (size_t at = 0; at < text.size(); at += 1001)
                out << text.substr(at, 1001) << std::flush;
        });
        read(pipe, filter);
        writer.join();
        unlink(pipe.c_str());
    }

    TraceRun run;
    const Folder folder;
    const std::string path = folder.path("in");
};

// Frames come as from libpcap, those too that it doesn't see.
TEST_F(CaptureSession, ReadsWhatLibpcapReads) {
    const std::vector<Bytes> frames = manyFrames();
    const std::string plain = captureText(frames);
    const struct {
        const char* what;
        std::string text;
        const char* filter = "";
    } cases[] = {
        {"plain", plain},
        {"filtered", plain, "greater 1000"},
        {"of all protocols", captureText(framesOfProtocols()), "udp"},
        {"larger than promised", captureText(frames, 100)},
        {"of nanoseconds", captureText(frames, 262144, DLT_EN10MB, PCAP_TSTAMP_PRECISION_NANO)},
        {"of version 2.3", std::string(plain).replace(6, 1, "\3")},
        {"of bare IP", captureText(frames, 65535, DLT_RAW)},
        {"cut in a frame", plain.substr(0, 300'000)},
        {"without frames", plain.substr(0, kCaptureHeadBytes)},
    };
    for (const auto& [what, text, filter] : cases) {
        SCOPED_TRACE(what);
        writeFile(path, text);
        const Reading wanted = libpcapReads(path, filter);
        read(path, filter);
        EXPECT_TRUE(taken == wanted);
        readFromPipe(text, filter);
        EXPECT_TRUE(taken == wanted);
    }
}

}  // namespace
