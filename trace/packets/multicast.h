// Multicast data and null packets, and packets of an unknown type: all that counts under
// the sender of a net. The handlers follow each sender's sequence numbers, distinguish new data
// from repeated data, count what went missing, and hand the payload of new data to the message
// scan.
//
//     0 ... 20    24      28       30         32
//     | start ... |       | length | fragment | data ...      data
//     | start ... |      reliability          |               null; may end at 24
//
// `fragment` 0: the payload holds whole messages; 1: the last may run on past the packet's end; 2
// and above: it isn't scanned. `reliability` is an IEEE 754 double, big-endian.
//
// Threads: under `statsLock`.

#pragma once

#include "trace/counts/statistics.h"
#include "trace/packets/oska.h"

// Where the packet's sender is counted.
[[nodiscard]] inline HostPath senderPath(const OskaPacket& packet) {
    return {packet.srcIp, packet.dstIp, packet.srcPort, packet.dstPort};
}

void dataHandle(const OskaPacket& packet);
void nullHandle(const OskaPacket& packet);

// Bad in any case, whether or not anything else was wrong.
void unknownTypeHandle(const OskaPacket& packet);
