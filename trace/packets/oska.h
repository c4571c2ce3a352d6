// A packet of OSKA (lib/msg/oska.h) as the tool handles it.

#pragma once

#include <cstdint>

#include "lib/base/bytes.h"
#include "lib/msg/oska.h"

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
