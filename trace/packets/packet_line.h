// Packets of a saved capture on their way to classification.
//
// Where a bus has many senders, the record of one is two trips to memory, first for its slot in the
// index and then for itself, and a packet has too little other work to pass the time. There a
// packet waits in a short line: the cache is asked for the slot as it enters, for the record when a
// few are behind it, and it is classified when some more are. Charges wait likewise
// (trace/counts/charge.h).
//
//     newest   |    slot    |    ...    |   record   |    ...    |   classified   |   oldest
//
// Where few have been seen, or the packet is a large one, it is classified at once. So it is with
// "-complain", which keeps what packets are told of in order with what is told of frames.
//
// Ownership: a waiting packet is a copy.
//
// Threads: those of classifyPacket (trace/packets/classify.h).

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/clock.h"

// Packets are classified in the order in which they come.
void packetEnter(TimeSpec time, const uint8_t* ip, size_t length);

// Classifies all that wait: ahead of each snapshot.
void packetsSettle();
