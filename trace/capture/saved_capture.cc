#include "trace/capture/saved_capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "lib/base/bytes.h"
#include "trace/capture/frame.h"
#include "trace/capture/read_ahead.h"

namespace {

constexpr uint32_t kPlainMagic = 0xa1b2c3d4;
constexpr uint16_t kPlainMajor = 2;
constexpr uint16_t kPlainMinor = 4;  // older ones have the two sizes the other way round

// In this machine's byte order, as is all that follows.
struct Head {
    uint32_t magic;
    uint16_t major, minor;
    uint32_t unused[3];
    uint32_t linkType;  // its upper half has flags
};
static_assert(sizeof(Head) == 24);

struct RecordHead {
    int32_t seconds;
    int32_t microseconds;
    uint32_t savedBytes;
    uint32_t sentBytes;
};

// No UDP datagram makes a larger record.
constexpr size_t kMostFrameBytes = kReadAheadMostHeldBytes - sizeof(RecordHead);
static_assert(kMostFrameBytes >= UINT16_MAX + 14);

struct SavedCapture {
    ReadAhead source;
    pcap_t* capture;
    bool plain;
    uint32_t snapshotBytes;
    bpf_program filter;  // without instructions all frames pass
    bool wantsAllUdp;    // the filter's text is kAllUdp
};

SavedCapture saved;

// The filter of a run that names none.
constexpr char kAllUdp[] = "udp";

constexpr size_t kIpProtocolOffset = kEthernetHeaderBytes + 9;
constexpr uint8_t kProtocolUdp = 17;

struct Frame {
    pcap_pkthdr header;
    const uint8_t* bytes;
};

// Ahead of libpcap's own look at the head, which it then takes from the stream.
bool headIsPlain() {
    Head head;
    if (!readAheadHolds(saved.source, sizeof head)) return false;
    std::memcpy(&head, saved.source.begin, sizeof head);
    return head.magic == kPlainMagic && head.major == kPlainMajor && head.minor == kPlainMinor &&
           head.linkType == DLT_EN10MB;
}

// Null on failure.
FILE* openStream(const char* path) {
    const bool isInput = std::strcmp(path, "-") == 0;
    const int descriptor = isInput ? dup(STDIN_FILENO) : open(path, O_RDONLY);
    if (descriptor < 0) return nullptr;
    readAheadBegin(saved.source, descriptor);
    saved.plain = headIsPlain();
    FILE* const stream =
        saved.plain ? readAheadShare(saved.source) : readAheadHandOver(saved.source);
    if (stream == nullptr) close(descriptor);
    return stream;
}

// False where the next record, or the end, is libpcap's.
bool nextFrame(Frame& frame) {
    RecordHead head;
    if (!readAheadHolds(saved.source, sizeof head)) return false;
    std::memcpy(&head, saved.source.begin, sizeof head);
    if (head.savedBytes > kMostFrameBytes) return false;
    if (!readAheadHolds(saved.source, sizeof head + head.savedBytes)) return false;

    // What the head promised is all that libpcap hands on.
    frame.header.ts = {head.seconds, head.microseconds};
    frame.header.caplen = std::min(head.savedBytes, saved.snapshotBytes);
    frame.header.len = head.sentBytes;
    frame.bytes = saved.source.begin + sizeof head;
    saved.source.begin += sizeof head + head.savedBytes;
    return true;
}

// Told without running the program, which takes longer than all else about a frame's reading.
bool isUdpOfIp(const Frame& frame) {
    return frame.header.caplen > kIpProtocolOffset &&
           loadBe16At(frame.bytes + kEthertypeOffset) == kEthertypeIp &&
           frame.bytes[kIpProtocolOffset] == kProtocolUdp;
}

bool passes(const Frame& frame) {
    if (saved.wantsAllUdp && isUdpOfIp(frame)) return true;
    return saved.filter.bf_insns == nullptr ||
           pcap_offline_filter(&saved.filter, &frame.header, frame.bytes) != 0;
}

// Hands on one frame that passes, as pcap_dispatch does: 1, at the end 0, negative on failure.
int handOnOne(pcap_handler handler, u_char* user) {
    Frame frame;
    while (nextFrame(frame)) {
        if (!passes(frame)) continue;
        handler(user, &frame.header, frame.bytes);
        return 1;
    }
    return pcap_dispatch(saved.capture, 1, handler, user);
}

}  // namespace

pcap_t* savedCaptureOpen(const char* path, char* error) {
    pcap_freecode(&saved.filter);
    saved.wantsAllUdp = false;
    saved.plain = false;

    // libpcap has its own words for a file that can't be opened.
    FILE* const stream = openStream(path);
    if (stream == nullptr) return saved.capture = pcap_open_offline(path, error);
    saved.capture = pcap_fopen_offline(stream, error);
    if (saved.capture == nullptr) {
        (void)std::fclose(stream);
        return nullptr;
    }
    saved.snapshotBytes = static_cast<uint32_t>(pcap_snapshot(saved.capture));
    return saved.capture;
}

void savedCaptureBreak() {
    readAheadStop(saved.source);
}

bool savedCaptureIsBroken() {
    return readAheadIsStopped(saved.source);
}

SavedExtent savedCaptureExtent() {
    struct stat status = {};
    const int descriptor = saved.source.descriptor;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return {};
    const off_t position = lseek(descriptor, 0, SEEK_CUR);
    if (position < 0 || status.st_size < 0) return {};
    return {static_cast<uint64_t>(position), static_cast<uint64_t>(status.st_size)};
}

void savedCaptureSwapFilter(bpf_program& program, const char* text) {
    std::swap(saved.filter, program);
    saved.wantsAllUdp = std::strcmp(text, kAllUdp) == 0;
}

int savedCaptureLoop(int count, pcap_handler handler, u_char* user) {
    if (!saved.plain) return pcap_loop(saved.capture, count, handler, user);
    for (;;) {
        const int passed = handOnOne(handler, user);
        if (passed <= 0) return passed;
        if (count > 0 && --count == 0) return 0;
    }
}
