// A random life of a few reliable endpoints, and what must hold in it whatever happens:
//
// - A message that a send took arrives once, whole and in its order, or its sender or receiver is
//   notified of the loss. Only a sender that closes its own endpoint, or crashes, isn't.
// - A connection that is no longer used comes to its end, and nothing is left: no record, no
//   entry of a table, no deadline, no message half put together.
// - No packet goes beyond the window that its receiver announced.
// - Connections at rest are silent, and no two peers talk without end.
//
// A faultless life never waits for a timer; a flushing one loses nothing either, though one
// endpoint closes. In a tame one faults come in spells that end in time: every message arrives, and
// nothing is lost or arrives again. In a wild one peers crash, close and come back, links are cut
// for minutes, allocations fail, a host answers from another address.
//
// Threads: one.

#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "tests/support/reliable_net.h"

struct ModelOutcome {
    std::string fault;  // empty: none
    uint64_t messages;
    uint64_t packets;
    uint64_t repeats;
};

// `trace` may be null; else it gets a line for each packet. Of `memory` the functions count.
ModelOutcome modelLive(uint64_t seed, const NetMemory& memory, FILE* trace);
