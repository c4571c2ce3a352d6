// Packets of the reliable layer: one to a UDP datagram. All integers are big-endian.
//
//      0      4      8          16         24    25    26       28  29      30       32
//     | source | dest | sequence | expected |flags|shift|mantissa|
//     0|options|checksum|options|payload
//
// The window is mantissa << shift, in packets. The checksum covers the first 16 bytes alone: it
// distinguishes packets of this protocol from others, and does not protect the data.
//
// Options are records of a type byte and a length byte, which counts the whole record. One type is
// known, the fragment; others are skipped:
//
//      0     1      2   4           8          16       20
//     | 4 | 20 |  0   | total size | first seq | offset |
//
// A payload is whole messages one after the other or, with a fragment option, a part of one.
//
// Threads: pure functions.

#pragma once

#include <cstdint>
#include <span>

inline constexpr uint32_t kMostDatagramBytes = 1464;
inline constexpr uint32_t kPacketHeaderBytes = 32;
inline constexpr uint32_t kFragmentOptionBytes = 20;
inline constexpr uint32_t kMostHeadBytes = kPacketHeaderBytes + kFragmentOptionBytes;
inline constexpr uint32_t kMostBlockBytes = 1432;        // of whole messages in a packet
inline constexpr uint32_t kFragmentPayloadBytes = 1412;  // of every fragment but the last

inline constexpr uint32_t kReceiveWindow = 32;  // packets

enum PacketFlag : uint8_t {
    kFlagFin = 1,          // the sender has no more data; takes a sequence number
    kFlagSyn = 2,          // opens; takes a sequence number
    kFlagRst = 4,          // aborts
    kFlagCloseNotice = 8,  // the sender's endpoint is closing
};

struct PacketHeader {
    uint32_t sourceId;  // the sender's connection id; 0 in a reset
    uint32_t destId;    // the receiver's; 0 in a first SYN
    uint64_t seq;
    uint64_t ack;  // the next number that the sender expects; 0 in a first SYN
    uint8_t flags;
    uint64_t window;  // packets; a read one is at most kMostWindow
};

inline constexpr uint64_t kMostWindow = uint64_t{1} << 32;

struct FragmentOption {
    uint32_t totalSize;  // of the message
    uint64_t firstSeq;   // of its first fragment
    uint32_t offset;     // of this one in the message
};

struct Packet {
    PacketHeader header;
    bool isFragment;
    FragmentOption fragment;
    std::span<const uint8_t> payload;  // within the datagram
};

// False for what is no packet: too short or too long, a wrong checksum, options that don't fit.
// Whether a fragment's numbers make sense is checked by the reassembly.
[[nodiscard]] bool packetRead(std::span<const uint8_t> datagram, Packet* out);

// Writes header and option, and returns their size. `fragment` may be null. A window that doesn't
// fit its mantissa is rounded down.
uint32_t packetWriteHead(uint8_t (&head)[kMostHeadBytes],
                         const PacketHeader& header,
                         const FragmentOption* fragment);
