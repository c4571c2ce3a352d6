// OSKA, the datagram protocol of the bus: the start that all its packets share, directly behind the
// UDP header. Big-endian throughout.
//
//     0       4       8       12      16     18     20      24
//     | magic |  src  | epoch |  dst  | type |      |  seq  | by type ...
//
// With the epoch's top bit set, the UDP source port is the sender's SCid; with it clear the sender
// has none.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/bytes.h"

constexpr uint32_t kOskaMagic = 0x88fa6923;
constexpr uint32_t kOskaEpochHasScid = 0x80000000;

constexpr size_t kOskaSrcOffset = 4;
constexpr size_t kOskaEpochOffset = 8;
constexpr size_t kOskaDstOffset = 12;
constexpr size_t kOskaTypeOffset = 16;
constexpr size_t kOskaSeqOffset = 20;

enum OskaType : int16_t {
    kOskaData = 1,
    kOskaRreq = 3,
    kOskaNull = 4,
    kOskaRrej = 5,
    kOskaPtpData = 6,
    kOskaPtpAckme = 7,
    kOskaPtpAck = 8,
    kOskaPtpNak = 9,
};

struct HostEntry;

// A packet as the classification hands it to its handler. The bytes are borrowed from the capture
// for the length of the call.
struct OskaPacket {
    uint32_t srcIp;
    uint16_t srcPort;  // 0 where the sender has no SCid
    uint32_t dstIp;
    uint16_t dstPort;
    int16_t type;
    Cursor header;  // stands on the magic; ends with the packet, or where the capture cut it
    bool complete;  // false where the capture cut the datagram
    bool bad;       // IP or UDP had a fault

    // Of data and null packets: the sender's record, where it has one already.
    HostEntry* sender;
};
