// Puts together what comes in pieces or out of order, and gives whole messages in order.
//
// An entry is a message of which fragments have come, under the number of its first one, or a
// packet of whole messages that came ahead of a gap, under its own. A message's bytes take memory
// as they come, never more than twice what has arrived: a fragment is believed only where its
// offset fits its sequence number, so that none can lie further ahead than the receive window.
//
// A message that can't be put together (contradicting fragments, no memory, above a bound) is
// abandoned: its loss is told once, with its size, and later fragments of it are dropped. What
// comes behind it is delivered.
//
// Ownership: the record owns its entries. Messages belong to whoever takes the batch. Payloads are
// copied.
//
// Bounds: kMostReassemblyPeerBytes for a connection, and ReassemblyShare for all of an endpoint's.
//
// Threads: no lock, no clock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/transport/reliable/packet.h"

struct Dpa;
struct Hash;

inline constexpr uint32_t kMostReassemblyPeerBytes = 0x4000000 + 0x10000;  // one longest message
inline constexpr uint64_t kMostReassemblyBytes = 0x10000000;               // 256 MiB

// What all connections of an endpoint share.
struct ReassemblyShare {
    uint64_t bytes;  // held now
    uint64_t most;
};

enum class ReassemblyBound : uint8_t { kNone, kPeer, kEndpoint };

struct Reassembly {
    Hash* entries;   // made at first use
    Dpa* abandoned;  // numbers of first fragments; made at first use
    uint64_t bytes;
    ReassemblyShare* share;
};

struct ReassemblyInput {
    const Packet* packet;  // with a payload
    bool inOrder;
    uint64_t rcvNxt;  // behind the packet, where it was in order
};

struct ReassemblyResult {
    Dpa* messages;       // of pelmoMsg, for the taker; null: none
    uint64_t next;       // the number expected now; rcvNxt or above
    uint32_t lostBytes;  // of messages given up by this packet; isLost tells if there is any
    bool isLost;
    ReassemblyBound bound;  // which bound gave a message up
};

void reassemblyInit(Reassembly* reassembly, ReassemblyShare* share);
void reassemblyFree(Reassembly* reassembly);

[[nodiscard]] bool reassemblyIsEmpty(const Reassembly* reassembly);

void reassemblyTake(Reassembly* reassembly, const ReassemblyInput& input, ReassemblyResult* result);
