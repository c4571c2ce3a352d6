// The message scan: a walk over the messages of a multicast data packet, just far enough to find
// each one's subject and charge the message to it and to its sender (trace/counts/charge.h). No
// message object is built; the bytes may be cut short or damaged anywhere.
//
//     message:  0 length (itself included) | 4 magic | 8 fields ...          all big-endian
//     field:    nameSize | name ... | type | sizeClass | [length word] data ...
//
// `sizeClass` below 120 is the data's size; 121 and 122 announce a length word of 16 or 32 bits,
// which counts itself; all else is a fault. The subject is a field of type 2 whose name is "sub".
//
// Whole packets are scanned strictly: every message must end inside. Otherwise a shortfall just
// ends the walk. Faults are logged with "-complain"; what was charged before one stays charged.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>
#include <span>

#include "trace/counts/statistics.h"

struct ScanSource {
    NetEntry& net;
    uint32_t srcIp;
    uint16_t srcPort;
    bool strict;
};

// 0, or 1 when a fault was found. Running out of memory ends the scan and is no fault.
[[nodiscard]] int scanMessages(const ScanSource& source, std::span<const uint8_t> payload);
