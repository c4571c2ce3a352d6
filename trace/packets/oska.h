// A packet of OSKA (lib/msg/oska.h) as the tool handles it, and where its parts are in the bytes
// that begin with its IP header: an IPv4 header without options, a UDP header, the packet.
//
// The functions are pure. Each says how many of the bytes have to be in hand.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/bytes.h"
#include "lib/msg/oska.h"

constexpr uint8_t kProtocolUdp = 17;

constexpr size_t kIpTotalLengthOffset = 2;
constexpr size_t kIpProtocolOffset = 9;
constexpr size_t kIpSrcOffset = 12;
constexpr size_t kIpDstOffset = 16;
constexpr size_t kUdpOffset = 20;
constexpr size_t kUdpDstPortOffset = kUdpOffset + 2;
constexpr size_t kUdpLengthOffset = kUdpOffset + 4;
constexpr size_t kUdpChecksumOffset = kUdpOffset + 6;
constexpr size_t kUdpHeaderBytes = 8;
constexpr size_t kOskaOffset = kUdpOffset + kUdpHeaderBytes;

// Below this not even the packet's type is in hand.
constexpr size_t kLeastOskaIpBytes = kOskaOffset + 20;

// Any bytes.
[[nodiscard]] inline bool oskaIsAt(const uint8_t* ip, size_t length) {
    return length >= kLeastOskaIpBytes && ip[kIpProtocolOffset] == kProtocolUdp &&
           loadBe32At(ip + kOskaOffset) == kOskaMagic;
}

// Where the packet ends within the bytes in hand.
struct OskaExtent {
    size_t endOffset;  // from the IP header
    bool complete;     // the whole datagram is in hand
    bool bad;          // UDP claims more than IP has
};

// kOskaOffset bytes.
[[nodiscard]] inline OskaExtent oskaExtent(const uint8_t* ip, size_t length) {
    const size_t datagramEnd = kUdpOffset + loadBe16At(ip + kUdpLengthOffset);
    if (datagramEnd > loadBe16At(ip + kIpTotalLengthOffset)) return {length, true, true};
    if (length < datagramEnd) return {length, false, false};
    return {datagramEnd, true, false};
}

// The bytes from the magic on.
[[nodiscard]] inline size_t oskaBytes(const OskaExtent& extent) {
    return extent.endOffset > kOskaOffset ? extent.endOffset - kOskaOffset : 0;
}

// The SCid, or 0 for a sender that has none. kLeastOskaIpBytes.
[[nodiscard]] inline uint16_t oskaSrcPort(const uint8_t* ip) {
    const uint32_t epoch = loadBe32At(ip + kOskaOffset + kOskaEpochOffset);
    return (epoch & kOskaEpochHasScid) != 0 ? loadNet16At(ip + kUdpOffset) : uint16_t{0};
}

struct HostEntry;

// A packet as the classification hands it to its handler. The bytes are borrowed from the capture
// for the length of the call.
struct OskaPacket {
    uint32_t srcIp;
    uint16_t srcPort;  // 0 where the sender has no SCid
    uint32_t dstIp;
    uint16_t dstPort;
    int16_t type;
    Cursor header;  // at the magic; ends with the packet, or where the capture cut it
    bool complete;  // false where the capture cut the datagram
    bool bad;       // IP or UDP had a fault

    // Of data and null packets: the sender's record, where it has one already.
    HostEntry* sender;
};
