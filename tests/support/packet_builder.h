// Packets, messages and subjects of the bus, built byte by byte for tests and benchmarks. Nothing
// here calls the code under test: checksums and lengths are computed in the simplest way.
//
// Every result is a vector of its own and of exact size, so that the address sanitizer sees a read
// beyond it.
//
// Byte order: all arguments are plain numbers in host order; the bytes are big-endian.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

constexpr uint32_t ipv4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

// Bytes.

[[nodiscard]] Bytes be16(uint64_t number);
[[nodiscard]] Bytes be32(uint64_t number);
[[nodiscard]] Bytes be64(uint64_t number);
[[nodiscard]] Bytes bytesOf(std::string_view text);
[[nodiscard]] Bytes joined(const std::vector<Bytes>& parts);

[[nodiscard]] Bytes patched(Bytes bytes, size_t offset, const Bytes& patch);

// The first `sizeBytes`, as in a truncated capture.
[[nodiscard]] Bytes cut(const Bytes& bytes, size_t sizeBytes);

// Packets: all begin at the IP header and have right lengths and a right checksum.

constexpr size_t kIpBytes = 20;
constexpr size_t kUdpAt = kIpBytes;
constexpr size_t kUdpLengthAt = kUdpAt + 4;
constexpr size_t kUdpChecksumAt = kUdpAt + 6;

struct PacketHead {
    uint32_t srcIp = ipv4(10, 0, 0, 1);
    uint16_t srcPort = 7001;
    uint32_t dstIp = ipv4(239, 1, 1, 1);
    uint16_t dstPort = 7500;
    uint32_t src = srcIp;  // as in the OSKA header
    uint32_t dst = dstIp;
    uint32_t epoch = 0x80000001;
    uint32_t seq = 1;
};

[[nodiscard]] Bytes udpPacket(const PacketHead& head, const Bytes& payload);

// `rest` begins at OSKA offset 24.
[[nodiscard]] Bytes oskaPacket(const PacketHead& head, int16_t type, const Bytes& rest);

[[nodiscard]] Bytes dataPacket(const PacketHead& head, const Bytes& payload, uint16_t fragment = 0);
[[nodiscard]] Bytes nullPacket(const PacketHead& head, std::optional<double> reliability);
[[nodiscard]] Bytes rreqPacket(PacketHead head, uint32_t itemCount);
[[nodiscard]] Bytes ptpDataPacket(const PacketHead& head, const Bytes& payload);

// The Internet checksum of RFC 1071: big-endian words, odd last byte padded with 0.
[[nodiscard]] uint16_t plainChecksum(const Bytes& bytes);

// The packet with a new UDP checksum, for one that was patched or shortened. Its IP and UDP lengths
// must be right.
[[nodiscard]] Bytes sealed(Bytes packet);

[[nodiscard]] Bytes ethernetFrame(const Bytes& ip);

// Subjects and messages.

// Any element texts, also those that no dotted text can give; at most 255 bytes in all.
[[nodiscard]] Bytes packedElements(const std::vector<std::string>& elements);
[[nodiscard]] Bytes packedSubject(const std::string& text);

// A field's name area: size, text and NUL.
[[nodiscard]] Bytes named(std::string_view name);

// The shortest size prefix that fits the value.
[[nodiscard]] Bytes field(const Bytes& nameArea, uint8_t type, const Bytes& value);

[[nodiscard]] Bytes subjectField(const Bytes& packed);
[[nodiscard]] Bytes message(const std::vector<Bytes>& fields);

// A message as applications send it: subject, kind and one opaque field of `dataBytes`.
[[nodiscard]] Bytes busMessage(const std::string& subject, size_t dataBytes = 10);
