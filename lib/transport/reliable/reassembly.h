// Puts together what comes in pieces or out of order, and gives whole messages in order.
//
//     next                                next + kReceiveWindow
//      |   |   | W |   | M | M |  ...  |   |
//        current M      what came ahead: whole packets W, fragments of messages M
//
// Each number of the receive window has a place for what came under it. As `next` moves over
// the places, packets are delivered, and fragments add to `current`, the one message that has begun
// below `next`; with its last one it is delivered, too.
//
// A message's bytes take memory as they come: twice what has arrived at most, and the window. A
// fragment is believed only where its place in the message fits its number, so that none can lie
// further ahead.
//
// A message that can't be put together (contradicting fragments, a number that something else took,
// no memory, above a bound) is abandoned: its loss is reported once, with its size, and later
// fragments of it are dropped. So is the rest of a packet after an invalid message. What comes
// later is delivered.
//
// Ownership: the record owns its entries. Messages belong to the caller that takes the batch.
// Payloads are copied.
//
// Bounds: kMostReassemblyPeerBytes for a connection, and ReassemblyShare for all of an endpoint's.
//
// Threads: no lock, no clock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/transport/reliable/packet.h"

struct Dpa;
struct ReassemblyEntry;

inline constexpr uint32_t kMostReassemblyPeerBytes = 0x4000000 + 0x10000;  // one longest message
inline constexpr uint64_t kMostReassemblyBytes = 0x10000000;               // 256 MiB

// What all connections of an endpoint share.
struct ReassemblyShare {
    uint64_t bytes;  // held now
    uint64_t most;
};

enum class ReassemblyBound : uint8_t { kNone, kPeer, kEndpoint };

struct Reassembly {
    uint64_t next;             // the number that nothing has come under yet, and all below it has
    ReassemblyEntry* current;  // null: no message has begun below `next`
    ReassemblyEntry* places[kReceiveWindow];  // by number modulo the window; null: nothing came
    uint32_t ahead;                           // places in use
    uint32_t abandoned;                       // bit i: a message that begins at `next` + i
    uint64_t bytes;
    ReassemblyShare* share;
};

struct ReassemblyInput {
    const Packet* packet;  // with a payload
    bool inOrder;
    uint64_t rcvNxt;  // after the packet, if it was in order, and after a FIN that follows it
};

struct ReassemblyResult {
    Dpa* messages;       // of pelmoMsg, for the taker; null: none
    uint64_t next;       // the number expected now; rcvNxt or above
    uint32_t lostBytes;  // of messages given up by this packet; isLost says whether there are any
    bool isLost;
    ReassemblyBound bound;  // which bound gave a message up
};

void reassemblyInit(Reassembly* reassembly, ReassemblyShare* share);
void reassemblyFree(Reassembly* reassembly);

[[nodiscard]] bool reassemblyIsEmpty(const Reassembly* reassembly);

// A reopened connection begins with other numbers: what is held for the old ones is dropped.
void reassemblyTake(Reassembly* reassembly, const ReassemblyInput& input, ReassemblyResult* result);

// The number came in order, without a payload.
void reassemblyPass(Reassembly* reassembly, uint64_t number, ReassemblyResult* result);
