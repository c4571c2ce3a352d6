// What a connection has to send: messages packed into packets, packets that wait for the window,
// packets that wait for their acknowledgement. All are in one ring, in the order of the messages:
//
//     | sent, not acknowledged | waiting | delayed |
//      consecutive numbers      no number yet       ^ messages are packed here
//
// A packet gets on by a count that moves: neither sending one nor taking all back needs memory.
//
// Whole messages fill a packet without a copy where they lie one after the other in one buffer,
// else in a buffer of kMostBlockBytes of the packet's own. A message of more than kMostBlockBytes
// becomes fragments that refer to its own buffer. The fragments of a message stay until its last
// one is acknowledged, so that a reopened connection can send it whole.
//
// With `delaySmall`, packets below kSmallPacketBytes wait for more, until sendBufferEndDelay or a
// later packet that doesn't wait.
//
// Ownership: the buffer owns its packets, a packet a reference to its buffer. Messages are
// borrowed.
//
// Failure: kStatusNoMemory; what was given is then not in the buffer.
//
// Threads: no lock, no clock; the owner serialises all calls. outPacketPoolCreate is called before
// other threads run.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/reliable/packet.h"

struct Buffer;
struct EntryRing;
struct pelmoMsg;

inline constexpr uint32_t kSmallPacketBytes = 1074;  // with `delaySmall`, smaller ones are delayed
inline constexpr uint64_t kSendBacklogBytes = 4000000;  // from here on senders wait
inline constexpr uint32_t kBacklogPacketBytes = 1464;   // what a waiting packet counts for
inline constexpr uint32_t kMostReliableMessageBytes = 0x4000000;  // 64 MiB, as on the daemon's road

struct OutPacket {
    PacketHeader header;  // seq 0: none yet
    bool isFragment;
    bool takesMore;           // the buffer was made here: what follows the payload is free
    FragmentOption fragment;  // firstSeq is stamped with the sequence number
    Buffer* buffer;
    uint32_t offset;  // of the payload in it
    uint32_t length;
    void* poolOwner;  // the pool's own word, not ours to touch; null for one from the heap
};

struct SendBuffer {
    EntryRing* packets;  // of OutPacket; null until first needed
    uint32_t sent;       // how many of them, from the front on, wait for their acknowledgement
    uint32_t delayed;    // how many, from the back on, wait for more to come
};

// The process's pool of packets, which stays. While there is none they come from the heap.
[[nodiscard]] pelmoStatus outPacketPoolCreate();

// Drops everything.
void sendBufferClear(SendBuffer* buffer);

// Packs messages after what waits: the last waiting packet takes more where it has room. A message
// above kMostReliableMessageBytes gives kStatusInvalidSize, a dead one kStatusInvalidMessage, and
// none of the messages is taken.
[[nodiscard]] pelmoStatus sendBufferAdd(SendBuffer* buffer,
                                        std::span<pelmoMsg* const> messages,
                                        bool delaySmall);

// All that is delayed waits no longer than the rest.
void sendBufferEndDelay(SendBuffer* buffer);

[[nodiscard]] uint32_t sendBufferWaiting(const SendBuffer* buffer);  // packets, no delayed ones
[[nodiscard]] bool sendBufferIsFull(const SendBuffer* buffer);       // do senders wait?
[[nodiscard]] bool sendBufferIsEmpty(const SendBuffer* buffer);      // of all three kinds

// The first waiting packet gets the sequence number and counts as sent; null for none.
[[nodiscard]] OutPacket* sendBufferNext(SendBuffer* buffer, uint64_t seq);

// The sent packet of that number that isn't acknowledged, or null.
[[nodiscard]] OutPacket* sendBufferFind(const SendBuffer* buffer, uint64_t seq);

// Frees what is acknowledged by `ack`, the fragments of a message only together.
void sendBufferAcknowledge(SendBuffer* buffer, uint64_t ack);

// The connection reopens and keeps its data: what isn't acknowledged, and with it the fragments
// that were kept for it, waits again before the rest, without numbers. Nothing is delayed any
// more. Returns the lowest sequence number of what waits again, 0 for none.
uint64_t sendBufferRewind(SendBuffer* buffer);

// Payload bytes of messages that aren't acknowledged whole, and how many messages those are.
[[nodiscard]] uint64_t sendBufferPayloadBytes(const SendBuffer* buffer);
[[nodiscard]] uint64_t sendBufferMessages(const SendBuffer* buffer);
