// What a connection has to send: messages packed into packets, packets that wait for the window,
// packets that wait for their acknowledgement.
//
//     messages --pack--> [delayQueue -->] sendQueue --next--> unacked --acknowledged--> gone
//
// Whole messages fill a packet without a copy where they lie one behind the other in one buffer,
// else in a buffer of kMostBlockBytes of the packet's own. A message of more than kMostBlockBytes
// becomes fragments that refer to its own buffer. The fragments of a message stay in `unacked`
// until its last one is acknowledged, so that a connection that opens anew can send it whole.
//
// `unacked` holds consecutive sequence numbers, from that of its first packet on.
//
// Ownership: the buffer owns its packets, a packet a reference to its buffer. Messages are
// borrowed.
//
// Failure: kStatusNoMemory; what was given is then not in the buffer.
//
// Threads: no lock, no clock; the owner serialises all calls.

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
    FragmentOption fragment;  // firstSeq is stamped with the sequence number
    Buffer* buffer;           // null: no payload
    uint32_t offset;          // of the payload in it
    uint32_t length;
    void* poolOwner;  // the pool's own word, not ours to touch; null for one from the heap
};

// Rings of OutPacket, made at first use.
struct SendBuffer {
    EntryRing* sendQueue;
    EntryRing* delayQueue;
    EntryRing* unacked;
};

// Drops everything.
void sendBufferClear(SendBuffer* buffer);

// Packs messages behind what waits: the last waiting packet takes more where it has room. A message
// above kMostReliableMessageBytes gives kStatusInvalidSize, and none of the messages is taken.
[[nodiscard]] pelmoStatus sendBufferAdd(SendBuffer* buffer,
                                        std::span<pelmoMsg* const> messages,
                                        bool delaySmall);

// All that is delayed goes to the end of the queue. False when memory ran out: nothing has moved.
[[nodiscard]] bool sendBufferEndDelay(SendBuffer* buffer);

[[nodiscard]] uint32_t sendBufferWaiting(const SendBuffer* buffer);  // packets of sendQueue
[[nodiscard]] bool sendBufferIsFull(const SendBuffer* buffer);       // do senders wait?
[[nodiscard]] bool sendBufferIsEmpty(const SendBuffer* buffer);      // of all three

// A packet without payload (SYN, SYN-ACK, FIN) under its sequence number, which is behind the last
// one. Null when memory ran out.
[[nodiscard]] OutPacket* sendBufferStore(SendBuffer* buffer, const PacketHeader& header);

// The first waiting packet gets the sequence number and moves to `unacked`; null for none, or when
// memory ran out, and it stays.
[[nodiscard]] OutPacket* sendBufferNext(SendBuffer* buffer, uint64_t seq);

// The unacknowledged packet of that number, or null.
[[nodiscard]] OutPacket* sendBufferFind(const SendBuffer* buffer, uint64_t seq);

// Frees what is acknowledged by `ack`, the fragments of a message only together.
void sendBufferAcknowledge(SendBuffer* buffer, uint64_t ack);

// The connection opens anew and keeps its data: all payload that isn't acknowledged, and with it
// the fragments that were kept for it, returns to the front of the queue, without numbers; packets
// without payload (SYN, FIN) are dropped. What was delayed goes to the end. Returns the lowest
// sequence number of what was moved, 0 for none. Can't fail: room was made when the packets left.
uint64_t sendBufferRewind(SendBuffer* buffer);

// Drops packets without payload that wait for an acknowledgement.
void sendBufferDropControl(SendBuffer* buffer);

// Payload bytes of messages that aren't acknowledged whole.
[[nodiscard]] uint64_t sendBufferPayloadBytes(const SendBuffer* buffer);
