// From an IP packet to its handler: is it of the bus, is its framing sound, how much of it is in
// hand, and which type is it?
//
//     IP header, always taken as 20 bytes          UDP header, from 20
//     2  total length                              20 source port
//     9  protocol, 17                              22 destination port
//     12 source address                            24 length, these 8 bytes included
//     16 destination address                       26 checksum
//
// The tool watches, it drops nothing: once the magic has matched, a faulty packet is counted by its
// type and marked bad. Traffic that isn't the bus's leaves after two tests and a compare.
//
// Failure: none is returned. Faults are counted by kind (trace/counts/faults.h) and logged with
// "-complain".
//
// Threads: analyzePacket takes `statsLock` for one packet; classifyPacket wants it held, or a run
// where no other thread counts.
//
// The bytes are borrowed from the capture for the length of the call. Any bytes will do.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"
#include "trace/counts/host_index.h"

// `time` is the packet's own. `ip` begins at the IP header, `length` are the bytes in hand from
// there.
void analyzePacket(TimeSpec time, const uint8_t* ip, size_t length);
void classifyPacket(TimeSpec time, const uint8_t* ip, size_t length);

// Where the sender of a data or null packet is counted; of any other, nowhere that matters.
[[nodiscard]] HostPath senderAhead(const uint8_t* ip, size_t length);
