#include "lib/transport/reliable/packet.h"

#include <algorithm>
#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kDestOffset = 4;
constexpr uint32_t kSeqOffset = 8;
constexpr uint32_t kAckOffset = 16;
constexpr uint32_t kFlagsOffset = 24;
constexpr uint32_t kShiftOffset = 25;
constexpr uint32_t kMantissaOffset = 26;
constexpr uint32_t kReservedOffset = 28;
constexpr uint32_t kOptionsLengthOffset = 29;
constexpr uint32_t kChecksumOffset = 30;
constexpr uint32_t kSummedBytes = 16;

// Of an option, and in a fragment's
constexpr uint32_t kOptionHeadBytes = 2;
constexpr uint8_t kOptionFragment = 4;
constexpr uint32_t kTotalSizeOffset = 4;
constexpr uint32_t kFirstSeqOffset = 8;
constexpr uint32_t kFragmentOffsetOffset = 16;

uint16_t checksumOf(const uint8_t* header) {
    uint32_t sum = 0;
    for (uint32_t at = 0; at < kSummedBytes; ++at)
        sum += header[at];
    return static_cast<uint16_t>(~sum);
}

uint64_t windowOf(uint16_t mantissa, uint8_t shift) {
    constexpr uint32_t kMostShift = 32;  // from here on any mantissa but 0 is the most
    return std::min(uint64_t{mantissa} << std::min<uint32_t>(shift, kMostShift), kMostWindow);
}

void writeWindow(uint8_t* head, uint64_t window) {
    uint8_t shift = 0;
    for (; window > UINT16_MAX; window >>= 1)
        ++shift;
    head[kShiftOffset] = shift;
    storeBe16At(head + kMantissaOffset, static_cast<uint16_t>(window));
}

// False for records that don't fill the options exactly.
bool readOptions(std::span<const uint8_t> options, Packet* out) {
    while (!options.empty()) {
        if (options.size() < kOptionHeadBytes) return false;
        const uint8_t* const option = options.data();
        const uint32_t length = option[1];
        if (length < kOptionHeadBytes || length > options.size()) return false;
        if (option[0] == kOptionFragment) {
            if (length != kFragmentOptionBytes) return false;
            out->isFragment = true;
            out->fragment = {.totalSize = loadBe32At(option + kTotalSizeOffset),
                             .firstSeq = loadBe64At(option + kFirstSeqOffset),
                             .offset = loadBe32At(option + kFragmentOffsetOffset)};
        }
        options = options.subspan(length);
    }
    return true;
}

void writeOption(uint8_t* option, const FragmentOption& fragment) {
    std::memset(option, 0, kFragmentOptionBytes);
    option[0] = kOptionFragment;
    option[1] = kFragmentOptionBytes;
    storeBe32At(option + kTotalSizeOffset, fragment.totalSize);
    storeBe64At(option + kFirstSeqOffset, fragment.firstSeq);
    storeBe32At(option + kFragmentOffsetOffset, fragment.offset);
}

}  // namespace

bool packetRead(std::span<const uint8_t> datagram, Packet* out) {
    if (datagram.size() < kPacketHeaderBytes || datagram.size() > kMostDatagramBytes) return false;
    const uint8_t* const head = datagram.data();
    if (loadBe16At(head + kChecksumOffset) != checksumOf(head)) return false;
    const std::span<const uint8_t> rest = datagram.subspan(kPacketHeaderBytes);
    const uint32_t optionsBytes = head[kOptionsLengthOffset];
    if (optionsBytes > rest.size()) return false;

    out->header = {.sourceId = loadBe32At(head),
                   .destId = loadBe32At(head + kDestOffset),
                   .seq = loadBe64At(head + kSeqOffset),
                   .ack = loadBe64At(head + kAckOffset),
                   .flags = head[kFlagsOffset],
                   .window = windowOf(loadBe16At(head + kMantissaOffset), head[kShiftOffset])};
    out->isFragment = false;
    out->fragment = {};
    out->payload = rest.subspan(optionsBytes);
    return readOptions(rest.first(optionsBytes), out);
}

uint32_t packetWriteHead(uint8_t (&head)[kMostHeadBytes],
                         const PacketHeader& header,
                         const FragmentOption* fragment) {
    storeBe32At(head, header.sourceId);
    storeBe32At(head + kDestOffset, header.destId);
    storeBe64At(head + kSeqOffset, header.seq);
    storeBe64At(head + kAckOffset, header.ack);
    head[kFlagsOffset] = header.flags;
    writeWindow(head, header.window);
    head[kReservedOffset] = 0;
    head[kOptionsLengthOffset] = fragment != nullptr ? kFragmentOptionBytes : 0;
    storeBe16At(head + kChecksumOffset, checksumOf(head));
    if (fragment == nullptr) return kPacketHeaderBytes;
    writeOption(head + kPacketHeaderBytes, *fragment);
    return kMostHeadBytes;
}
