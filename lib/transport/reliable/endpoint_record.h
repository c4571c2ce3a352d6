// The record of a reliable endpoint, what it sends through, and what its calls give. The calls are
// in endpoint_core.h; connections know the record and not the calls.
//
// Units: seconds since 1970, by a clock that never steps back.

#pragma once

#include <cstdint>
#include <span>

#include "lib/transport/reliable/deadline_heap.h"
#include "lib/transport/reliable/peer.h"
#include "lib/transport/reliable/reassembly.h"

struct Buffer;
struct Dpa;
struct Hash;
struct ReliableConnection;

inline constexpr uint32_t kMostHalfOpen = 1024;

struct OutDatagram {
    std::span<const uint8_t> head;     // valid during the call
    std::span<const uint8_t> payload;  // in `buffer`: a reference keeps it
    Buffer* buffer;                    // null: no payload
    bool isRepeat;
};

struct EndpointSink {
    void* closure;
    void (*send)(void* closure, const PeerAddress& to, const OutDatagram& datagram);

    // Senders that wait for this connection may continue: it has room, or has ended.
    void (*wakeSenders)(void* closure, void* waiter);

    // A connection that had a waiter is freed.
    void (*dropWaiter)(void* closure, void* waiter);

    // A number that outsiders cannot guess. Called again until it gives one that is free.
    uint32_t (*drawId)(void* closure);
};

struct LossReport {
    bool inbound;  // else what was sent to the peer
    PeerAddress peer;
    uint64_t bytes;  // 0: not known
};

inline constexpr uint32_t kMostLosses = 4;

enum EndpointNotice : uint32_t {
    kNoticeHalfOpen = 1,
    kNoticePeerReassembly = 2,
    kNoticeEndpointReassembly = 4,
};

// Empty before each call; handled after it, with no lock held.
struct EndpointOutput {
    PeerAddress peer;                // whom the messages are from
    Dpa* messages;                   // null: none. The list and the messages belong to the taker
    LossReport losses[kMostLosses];  // what has no place is added to the last
    uint32_t lossCount;
    uint32_t notices;    // bits of EndpointNotice
    bool flushAdvanced;  // a connection has nothing more to flush
};

// What was sent and no peer has acknowledged.
struct EndpointUnsent {
    uint64_t messages;
    uint64_t bytes;
};

struct EndpointCounts {
    uint64_t messagesSent;
    uint64_t messagesReceived;
    uint64_t packetsSent;  // repeats among them
    uint64_t packetsReceived;
    uint64_t packetsResent;
    uint64_t packetsDropped;  // malformed, or of no connection
};

struct EndpointCore {
    EndpointSink sink;  // constant
    bool open;
    bool flushing;
    Hash* byPeer;     // of ReliableConnection, by the peer's address
    Hash* byId;       // by the local id, from a sent SYN until its answer
    uint32_t lastId;  // the local id last given out; each incarnation of a connection has its own
    DeadlineHeap deadlines;  // of all connections
    ReassemblyShare share;
    EndpointCounts counts;

    // Connections are in lists of their own, too: all of them, and those that are half open, the
    // oldest first.
    ReliableConnection* first;
    uint32_t connections;
    ReliableConnection* oldestHalfOpen;
    ReliableConnection* newestHalfOpen;
    uint32_t halfOpen;
    uint32_t mostHalfOpen;

    uint32_t unflushed;  // connections that a flushing close still waits for
};
