#include "watch/capture/capture_reader.h"

#include <archive.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "trace/capture/read_ahead.h"

namespace {

constexpr size_t kMostHeldBytes = kReadAheadMostHeldBytes;
constexpr size_t kMostFrameBytes = 66 << 10;  // a UDP datagram of 64 KiB in its headers
constexpr uint32_t kMostRecordBytes = 256 << 20;
constexpr size_t kMostInterfaces = 65536;
constexpr uint64_t kNanoseconds = 1000000000;
constexpr uint64_t kMicroseconds = 1000000;

enum class Format : uint8_t { kUnknown, kPcap, kPcapng };

struct Interface {
    uint16_t linkType;
    uint32_t snapshotBytes;
    uint64_t ticksASecond;
    int64_t offsetSeconds;
};

struct ArchiveDelete {
    void operator()(archive* one) const { archive_read_free(one); }
};

constexpr Interface kNoInterface = {0, 0, kMicroseconds, 0};

}  // namespace

struct CaptureReader {
    ~CaptureReader() {
        if (descriptor >= 0) close(descriptor);
    }

    int descriptor = -1;
    std::unique_ptr<ReadAhead> raw;
    std::unique_ptr<ReadAhead> unpacked;  // of a compressed file
    std::unique_ptr<archive, ArchiveDelete> unpacker;
    std::span<const uint8_t> block;  // the unpacker's, that isn't read yet
    bool packedEnded = false;
    bool archiveFailed = false;
    ReadAhead* source = nullptr;

    Format format = Format::kUnknown;
    bool swapped = false;
    Interface pcap = kNoInterface;
    std::vector<Interface> interfaces;  // of the section
    uint32_t snapshotBytes = 0;
    int64_t lastSeconds = 0;  // for packets without a time
    uint32_t lastNanoseconds = 0;
    uint64_t dropBytes = 0;  // of the frame before, still to be passed over

    std::string fault;
};

namespace {

// ---- Numbers in the file's byte order ----

uint32_t load32(const CaptureReader& reader, const uint8_t* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return reader.swapped ? __builtin_bswap32(word) : word;
}

uint16_t load16(const CaptureReader& reader, const uint8_t* at) {
    uint16_t word;
    std::memcpy(&word, at, sizeof word);
    return reader.swapped ? __builtin_bswap16(word) : word;
}

uint64_t load64(const CaptureReader& reader, const uint8_t* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return reader.swapped ? __builtin_bswap64(word) : word;
}

// ---- Ends ----

ReadResult faultOf(CaptureReader& reader, std::string words) {
    reader.fault = std::move(words);
    return ReadResult::kFault;
}

std::string archiveWords(const CaptureReader& reader) {
    archive* const one = reader.unpacker.get();
    const char* const text = one != nullptr ? archive_error_string(one) : nullptr;
    return text != nullptr ? text : "no reason given";
}

// The source gave fewer bytes than were wanted.
ReadResult endOf(CaptureReader& reader, bool atBoundary) {
    if (readAheadIsStopped(*reader.raw)) return ReadResult::kStopped;
    if (reader.archiveFailed) {
        return faultOf(reader, reader.packedEnded ? "its compressed data ends early"
                                                  : "its compressed data is damaged (" +
                                                        archiveWords(reader) + ")");
    }
    if (atBoundary && readAheadHeld(*reader.source) == 0) return ReadResult::kEnd;
    reader.fault = "it ends early, within a packet";
    return ReadResult::kEndsEarly;
}

// ---- Decompression ----

// Hands the compressed bytes to the library where they are.
la_ssize_t readPacked(archive*, void* context, const void** bytes) {
    CaptureReader& reader = *static_cast<CaptureReader*>(context);
    ReadAhead& raw = *reader.raw;
    reader.packedEnded = !readAheadHolds(raw, 1);
    if (reader.packedEnded) return 0;
    const size_t held = readAheadHeld(raw);
    *bytes = raw.begin;
    raw.begin = raw.end;
    return static_cast<la_ssize_t>(held);
}

// By the library's blocks: a call that fills a buffer keeps nothing of it where a later block
// fails.
ssize_t readUnpacked(void* context, void* buffer, size_t sizeBytes) {
    CaptureReader& reader = *static_cast<CaptureReader*>(context);
    while (reader.block.empty()) {
        const void* bytes = nullptr;
        size_t length = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(reader.unpacker.get(), &bytes, &length, &offset);
        if (result == ARCHIVE_EOF) return 0;
        reader.archiveFailed = result != ARCHIVE_OK;
        if (reader.archiveFailed) return -1;
        reader.block = {static_cast<const uint8_t*>(bytes), length};
    }
    const size_t taken = std::min(sizeBytes, reader.block.size());
    std::memcpy(buffer, reader.block.data(), taken);
    reader.block = reader.block.subspan(taken);
    return static_cast<ssize_t>(taken);
}

bool isCompressed(std::string_view head) {
    using namespace std::string_view_literals;
    constexpr std::string_view kMagics[] = {"\x1f\x8b"sv, "\x28\xb5\x2f\xfd"sv,
                                            "\xfd"
                                            "7zXZ\0"sv,
                                            "BZh"sv, "\x04\x22\x4d\x18"sv};
    return std::ranges::any_of(kMagics, [&](auto magic) { return head.starts_with(magic); });
}

bool openArchive(CaptureReader& reader) {
    reader.unpacker.reset(archive_read_new());
    archive* const one = reader.unpacker.get();
    if (one == nullptr) return false;
    for (const auto support : {archive_read_support_filter_gzip, archive_read_support_filter_zstd,
                               archive_read_support_filter_xz, archive_read_support_filter_bzip2,
                               archive_read_support_filter_lz4, archive_read_support_format_raw}) {
        if (support(one) != ARCHIVE_OK) return false;
    }
    archive_entry* entry = nullptr;
    return archive_read_open(one, &reader, nullptr, readPacked, nullptr) == ARCHIVE_OK &&
           archive_read_next_header(one, &entry) == ARCHIVE_OK;
}

// False with `fault` set.
bool unpack(CaptureReader& reader) {
    reader.unpacked.reset(new (std::nothrow) ReadAhead);
    if (reader.unpacked == nullptr) {
        reader.fault = "memory ran out";
        return false;
    }
    if (!openArchive(reader)) {
        reader.fault = "its compressed data can't be read (" + archiveWords(reader) + ")";
        return false;
    }
    readAheadBeginWith(*reader.unpacked, readUnpacked, &reader);
    reader.source = reader.unpacked.get();
    return true;
}

// ---- pcap ----

constexpr size_t kPcapHeadBytes = 24;
constexpr size_t kRecordHeadBytes = 16;
constexpr uint32_t kMagicMicroseconds = 0xa1b2c3d4;
constexpr uint32_t kMagicNanoseconds = 0xa1b23c4d;

bool isPcapMagic(uint32_t magic) {
    return magic == kMagicMicroseconds || magic == kMagicNanoseconds;
}

ReadResult beginPcap(CaptureReader& reader, uint32_t magic) {
    if (!readAheadHolds(*reader.source, kPcapHeadBytes)) return endOf(reader, false);
    const uint8_t* const head = reader.source->begin;
    const uint16_t major = load16(reader, head + 4);
    if (major != 2) return faultOf(reader, "it is a pcap file of an unknown version");
    reader.pcap = {.linkType = static_cast<uint16_t>(load32(reader, head + 20)),
                   .snapshotBytes = load32(reader, head + 16),
                   .ticksASecond = magic == kMagicNanoseconds ? kNanoseconds : kMicroseconds,
                   .offsetSeconds = 0};
    reader.snapshotBytes = reader.pcap.snapshotBytes;
    reader.source->begin += kPcapHeadBytes;
    reader.format = Format::kPcap;
    return ReadResult::kFrame;
}

// Hands on a frame of `savedBytes`, the first of which are to come, and remembers what is to be
// passed over before the next record: what is too much of it, and `restBytes` after it.
ReadResult handOn(CaptureReader& reader,
                  uint32_t savedBytes,
                  uint64_t restBytes,
                  CaptureFrame* frame) {
    const size_t kept = std::min<size_t>(savedBytes, kMostFrameBytes);
    if (!readAheadHolds(*reader.source, kept)) return endOf(reader, false);
    frame->bytes = reader.source->begin;
    frame->capturedBytes = static_cast<uint32_t>(kept);
    frame->wireBytes = std::max(frame->wireBytes, savedBytes);
    reader.source->begin += kept;
    reader.dropBytes = savedBytes - kept + restBytes;
    reader.lastSeconds = frame->seconds;
    reader.lastNanoseconds = frame->nanoseconds;
    return ReadResult::kFrame;
}

// A frame is no longer than the head promised, as libpcap has it.
ReadResult nextOfPcap(CaptureReader& reader, CaptureFrame* frame) {
    if (!readAheadHolds(*reader.source, kRecordHeadBytes)) return endOf(reader, true);
    const uint8_t* const head = reader.source->begin;
    const uint32_t savedBytes = load32(reader, head + 8);
    if (savedBytes > kMostRecordBytes) {
        return faultOf(reader,
                       "it is damaged: a record claims " + std::to_string(savedBytes) + " bytes");
    }
    frame->seconds = static_cast<int32_t>(load32(reader, head));
    const uint64_t ticks = load32(reader, head + 4);
    const bool isNano = reader.pcap.ticksASecond == kNanoseconds;
    frame->nanoseconds = static_cast<uint32_t>(isNano ? ticks : ticks * 1000);
    frame->wireBytes = load32(reader, head + 12);
    frame->linkType = reader.pcap.linkType;
    reader.source->begin += kRecordHeadBytes;
    const uint32_t most = reader.pcap.snapshotBytes;
    const uint32_t used = most != 0 ? std::min(savedBytes, most) : savedBytes;
    return handOn(reader, used, savedBytes - used, frame);
}

// ---- pcapng ----

constexpr uint32_t kSectionBlock = 0x0a0d0d0a;
constexpr uint32_t kInterfaceBlock = 1;
constexpr uint32_t kOldPacketBlock = 2;
constexpr uint32_t kSimplePacketBlock = 3;
constexpr uint32_t kPacketBlock = 6;
constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;
constexpr size_t kBlockHeadBytes = 8;
constexpr size_t kBlockEndBytes = 4;
constexpr size_t kLeastBlockBytes = kBlockHeadBytes + kBlockEndBytes;

constexpr uint16_t kOptionEnd = 0;
constexpr uint16_t kOptionResolution = 9;
constexpr uint16_t kOptionOffset = 14;

// False for a resolution that no clock has.
bool ticksOf(uint8_t code, uint64_t* ticksASecond) {
    const unsigned power = code & 0x7f;
    if ((code & 0x80) != 0) {
        if (power > 63) return false;
        *ticksASecond = uint64_t{1} << power;
        return true;
    }
    if (power > 19) return false;
    *ticksASecond = 1;
    for (unsigned i = 0; i < power; ++i)
        *ticksASecond *= 10;
    return true;
}

// Options end by their own mark or with the block.
bool readOptions(const CaptureReader& reader,
                 const uint8_t* at,
                 size_t sizeBytes,
                 Interface* interface) {
    while (sizeBytes >= 4) {
        const uint16_t code = load16(reader, at);
        const size_t valueBytes = load16(reader, at + 2);
        const size_t paddedBytes = (valueBytes + 3) & ~size_t{3};
        if (code == kOptionEnd || paddedBytes > sizeBytes - 4) return true;
        if (code == kOptionResolution && valueBytes >= 1 &&
            !ticksOf(at[4], &interface->ticksASecond)) {
            return false;
        }
        if (code == kOptionOffset && valueBytes >= 8) {
            interface->offsetSeconds = static_cast<int64_t>(load64(reader, at + 4));
        }
        at += 4 + paddedBytes;
        sizeBytes -= 4 + paddedBytes;
    }
    return true;
}

ReadResult damaged(CaptureReader& reader, const char* what) {
    return faultOf(reader, std::string("it is damaged: ") + what);
}

// The body of a block: what may be looked at of it, and its whole size.
struct Body {
    const uint8_t* bytes;
    size_t heldBytes;
    size_t sizeBytes;
};

ReadResult takeInterface(CaptureReader& reader, const Body& body) {
    if (body.heldBytes < 8) return damaged(reader, "the description of an interface is too short");
    if (reader.interfaces.size() >= kMostInterfaces) return damaged(reader, "too many interfaces");
    Interface interface = {.linkType = load16(reader, body.bytes),
                           .snapshotBytes = load32(reader, body.bytes + 4),
                           .ticksASecond = kMicroseconds,
                           .offsetSeconds = 0};
    if (!readOptions(reader, body.bytes + 8, body.heldBytes - 8, &interface)) {
        return damaged(reader, "the clock of an interface has an unknown resolution");
    }
    reader.interfaces.push_back(interface);
    const uint32_t most = interface.snapshotBytes;
    if (most != 0 && (reader.snapshotBytes == 0 || most < reader.snapshotBytes)) {
        reader.snapshotBytes = most;
    }
    return ReadResult::kFrame;
}

void setTime(const Interface& interface, uint64_t ticks, CaptureFrame* frame) {
    const uint64_t perSecond = interface.ticksASecond;
    frame->seconds =
        static_cast<int64_t>(ticks / perSecond + static_cast<uint64_t>(interface.offsetSeconds));
    // Exact for every clock up to a nanosecond's; the type has the bits for finer ones.
    const auto part = static_cast<long double>(ticks % perSecond);
    frame->nanoseconds =
        static_cast<uint32_t>(part * kNanoseconds / static_cast<long double>(perSecond));
}

// Where a block has its packet: the interface, the time, the sizes, the bytes.
struct PacketPlaces {
    size_t headBytes;
    bool wideInterface;
};

ReadResult takePacket(CaptureReader& reader,
                      const Body& body,
                      const PacketPlaces& places,
                      CaptureFrame* frame) {
    if (body.heldBytes < places.headBytes) return damaged(reader, "a packet's block is too short");
    const uint8_t* const head = body.bytes;
    const uint32_t number = places.wideInterface ? load32(reader, head) : load16(reader, head);
    if (number >= reader.interfaces.size()) {
        return damaged(reader, "a packet names an interface that isn't described");
    }
    const Interface& interface = reader.interfaces[number];
    const uint64_t ticks = uint64_t{load32(reader, head + 4)} << 32 | load32(reader, head + 8);
    const uint32_t savedBytes = load32(reader, head + 12);
    if (savedBytes > body.sizeBytes - places.headBytes) {
        return damaged(reader, "a packet is larger than its block");
    }
    setTime(interface, ticks, frame);
    frame->wireBytes = load32(reader, head + 16);
    frame->linkType = interface.linkType;
    reader.source->begin = head + places.headBytes;
    return handOn(reader, savedBytes,
                  body.sizeBytes - places.headBytes - savedBytes + kBlockEndBytes, frame);
}

// Its packet has the first interface, and no time: that of the packet before is taken.
ReadResult takeSimple(CaptureReader& reader, const Body& body, CaptureFrame* frame) {
    if (body.heldBytes < 4 || reader.interfaces.empty()) {
        return damaged(reader, "a simple packet without an interface");
    }
    const Interface& interface = reader.interfaces[0];
    const uint32_t wireBytes = load32(reader, body.bytes);
    size_t saved = std::min<size_t>(wireBytes, body.sizeBytes - 4);
    if (interface.snapshotBytes != 0) saved = std::min<size_t>(saved, interface.snapshotBytes);
    *frame = {.seconds = reader.lastSeconds,
              .nanoseconds = reader.lastNanoseconds,
              .capturedBytes = 0,
              .wireBytes = wireBytes,
              .linkType = interface.linkType,
              .bytes = nullptr};
    reader.source->begin = body.bytes + 4;
    return handOn(reader, static_cast<uint32_t>(saved), body.sizeBytes - 4 - saved + kBlockEndBytes,
                  frame);
}

// A section's head says in which byte order all that follows is, its own length among it.
ReadResult takeSection(CaptureReader& reader) {
    if (!readAheadHolds(*reader.source, kBlockHeadBytes + 4)) return endOf(reader, false);
    uint32_t magic;
    std::memcpy(&magic, reader.source->begin + kBlockHeadBytes, sizeof magic);
    if (magic != kByteOrderMagic && __builtin_bswap32(magic) != kByteOrderMagic) {
        return damaged(reader, "the head of a section has no byte order");
    }
    reader.swapped = magic != kByteOrderMagic;
    reader.interfaces.clear();
    return ReadResult::kFrame;
}

// Handles one block; kFrame with `frame->bytes` null where it has no frame.
ReadResult nextBlock(CaptureReader& reader, CaptureFrame* frame) {
    frame->bytes = nullptr;
    ReadAhead& source = *reader.source;
    if (!readAheadHolds(source, kBlockHeadBytes)) return endOf(reader, true);
    uint32_t kind;
    std::memcpy(&kind, source.begin, sizeof kind);  // a section's kind reads the same both ways
    if (kind == kSectionBlock) {
        const ReadResult result = takeSection(reader);
        if (result != ReadResult::kFrame) return result;
    }
    kind = load32(reader, source.begin);
    const uint32_t blockBytes = load32(reader, source.begin + 4);
    if (blockBytes < kLeastBlockBytes || blockBytes % 4 != 0) {
        return damaged(reader, "a block has an impossible length");
    }
    const size_t bodyBytes = blockBytes - kLeastBlockBytes;
    const bool isKnown = kind == kInterfaceBlock || kind == kOldPacketBlock ||
                         kind == kSimplePacketBlock || kind == kPacketBlock;
    const size_t wanted = isKnown ? std::min(bodyBytes, kMostHeldBytes - kBlockHeadBytes) : 0;
    if (!readAheadHolds(source, kBlockHeadBytes + wanted)) return endOf(reader, false);
    source.begin += kBlockHeadBytes;
    const Body body = {source.begin, wanted, bodyBytes};
    if (kind == kPacketBlock) return takePacket(reader, body, {20, true}, frame);
    if (kind == kOldPacketBlock) return takePacket(reader, body, {20, false}, frame);
    if (kind == kSimplePacketBlock) return takeSimple(reader, body, frame);
    reader.dropBytes = bodyBytes + kBlockEndBytes;
    return kind == kInterfaceBlock ? takeInterface(reader, body) : ReadResult::kFrame;
}

ReadResult nextOfPcapng(CaptureReader& reader, CaptureFrame* frame) {
    for (;;) {
        const ReadResult result = nextBlock(reader, frame);
        if (result != ReadResult::kFrame || frame->bytes != nullptr) return result;
        if (!readAheadDrop(*reader.source, reader.dropBytes)) return endOf(reader, false);
        reader.dropBytes = 0;
    }
}

// ---- The beginning ----

ReadResult notACapture(CaptureReader& reader) {
    if (readAheadIsStopped(*reader.raw)) return ReadResult::kStopped;
    if (reader.archiveFailed) return endOf(reader, false);
    return faultOf(reader, readAheadHeld(*reader.source) == 0
                               ? "it is empty"
                               : "it isn't a capture (pcap or pcapng)");
}

ReadResult begin(CaptureReader& reader) {
    constexpr size_t kMagicBytes = 6;
    (void)readAheadHolds(*reader.raw, kMagicBytes);
    const std::string_view head(reinterpret_cast<const char*>(reader.raw->begin),
                                readAheadHeld(*reader.raw));
    if (isCompressed(head) && !unpack(reader)) {
        return readAheadIsStopped(*reader.raw) ? ReadResult::kStopped : ReadResult::kFault;
    }
    uint32_t magic = 0;
    if (!readAheadHolds(*reader.source, sizeof magic)) return notACapture(reader);
    std::memcpy(&magic, reader.source->begin, sizeof magic);
    if (magic == kSectionBlock) {
        reader.format = Format::kPcapng;
        return ReadResult::kFrame;
    }
    reader.swapped = isPcapMagic(__builtin_bswap32(magic));
    if (reader.swapped) magic = __builtin_bswap32(magic);
    return isPcapMagic(magic) ? beginPcap(reader, magic) : notACapture(reader);
}

}  // namespace

void CaptureReaderDelete::operator()(CaptureReader* reader) const {
    delete reader;
}

OwnedCaptureReader captureReaderOpen(int descriptor, std::atomic<bool>& stopped) {
    OwnedCaptureReader reader(new (std::nothrow) CaptureReader);
    if (reader != nullptr) {
        reader->descriptor = descriptor;
        reader->raw.reset(new (std::nothrow) ReadAhead);
        if (reader->raw == nullptr) return nullptr;
        readAheadBegin(*reader->raw, descriptor);
        reader->raw->stopped = &stopped;
        reader->source = reader->raw.get();
        return reader;
    }
    close(descriptor);
    return nullptr;
}

ReadResult captureReaderBegin(CaptureReader& reader) {
    ReadResult result = begin(reader);
    CaptureFrame none;  // a packet without an interface is a fault
    while (result == ReadResult::kFrame && reader.format == Format::kPcapng &&
           reader.interfaces.empty()) {
        if (!readAheadDrop(*reader.source, std::exchange(reader.dropBytes, 0))) {
            return endOf(reader, false);
        }
        result = nextBlock(reader, &none);
    }
    return result;
}

ReadResult captureReaderNext(CaptureReader& reader, CaptureFrame* frame) {
    if (reader.format == Format::kUnknown) {
        const ReadResult result = begin(reader);
        if (result != ReadResult::kFrame) return result;
    }
    if (reader.dropBytes > 0) {
        if (!readAheadDrop(*reader.source, reader.dropBytes)) return endOf(reader, false);
        reader.dropBytes = 0;
    }
    return reader.format == Format::kPcap ? nextOfPcap(reader, frame) : nextOfPcapng(reader, frame);
}

std::optional<CaptureClock> captureReaderClock(const CaptureReader& reader) {
    const bool isPcapng = reader.format == Format::kPcapng;
    if (reader.unpacked != nullptr || (isPcapng && reader.interfaces.empty())) return {};
    const Interface& first = isPcapng ? reader.interfaces[0] : reader.pcap;
    const bool differ = std::ranges::any_of(reader.interfaces, [&](const Interface& other) {
        return other.ticksASecond != first.ticksASecond ||
               other.offsetSeconds != first.offsetSeconds;
    });
    if (differ) return {};
    return CaptureClock{isPcapng, reader.swapped, first.ticksASecond, first.offsetSeconds};
}

const std::string& captureReaderFault(const CaptureReader& reader) {
    return reader.fault;
}

uint64_t captureReaderBytesRead(const CaptureReader& reader) {
    const off_t position = lseek(reader.descriptor, 0, SEEK_CUR);
    return position > 0 ? static_cast<uint64_t>(position) : 0;
}

uint32_t captureReaderSnapshotBytes(const CaptureReader& reader) {
    return reader.snapshotBytes;
}
