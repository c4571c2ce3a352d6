// A pipeline for packets of a saved capture before classification.
//
// With many senders, the record of one takes two memory accesses, first to its slot in the index
// and then to the record, and a packet has too little other work to hide them. So a packet waits in
// a short pipeline: its slot is prefetched when it enters, its record when a few packets have
// entered after it, and it is classified when some more have. Charges wait in the same way
// (trace/counts/charge.h).
//
//     newest   |    slot    |    ...    |   record   |    ...    |   classified   |   oldest
//
// With few senders, or a large packet, the packet is classified at once. So it is with "-complain",
// which keeps the lines about packets in order with the lines about frames.
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

// Classifies all waiting packets. Called before each snapshot.
void packetsSettle();
