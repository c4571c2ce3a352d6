// The write queue: messages on their way to a connection that takes them when it can.
//
//     current      ring
//     [###....]    [record] [record] ... [record]
//      ^ the next byte to be sent         ^ tail, which small messages join
//
// `current` is being written; while it is empty, so is the ring. A record is a piece of a buffer
// that it shares with others, or, once small messages have joined it, a buffer of its own. While
// nothing waits the queue has neither ring nor records.
//
// Ownership: a record has a reference to its buffer. What is added is borrowed; a reference to its
// buffer is taken, or its bytes are copied.
//
// Failure: kStatusNoMemory, and the queue is unchanged.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls. writeRecordPoolCreate is
// called before other threads run.
//
// Units: bytes, seconds by the steady clock.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

struct Buffer;
struct EntryRing;
struct GatherList;

inline constexpr uint32_t kSmallMessageBytes = 2048;  // a longer one is never copied
inline constexpr uint32_t kCoalescingBytes = 16384;   // of a buffer that small messages share
inline constexpr double kOldAfterSeconds = 0.5;       // when the age of a record begins to count
inline constexpr double kWriteTimeUnknown = 0;

struct WriteRecord {
    double time;     // it counts as old this long after, plus the age limit; kWriteTimeUnknown
    Buffer* buffer;  // null for none
    uint32_t start;  // offsets of what has to be sent
    uint32_t end;
    uint32_t count;   // messages
    bool coalescing;  // the buffer is the record's own and takes more
    bool urgent;
    void* poolOwner;  // the pool's own word, not ours to touch; null for a record from the heap
};

struct WriteQueue {
    WriteRecord current;
    EntryRing* ring;  // of WriteRecord; null until first needed

    // Settings
    bool discards;       // old records are dropped
    double ageSeconds;   // how long after `time` a record is old; 0 for never
    uint32_t byteLimit;  // of what waits in the ring; 0 for none

    // What waits
    uint32_t messages;
    uint64_t ringBytes;    // without `current`
    uint64_t bufferBytes;  // of the buffers of all records

    bool currentIsBegun;  // some of its bytes are sent
};

// Messages that lie one after the other in a buffer.
struct WritePiece {
    Buffer* buffer;
    uint32_t offset;
    uint32_t length;
    uint32_t count;
    bool urgent;  // passes all that waits in the ring
};

// What a send has finished.
struct WriteProgress {
    uint32_t messages;
    bool endsWithin;  // the last record is only partly sent
};

struct AgeReport {
    uint32_t level;    // 0 to 3, as IpqProducerCallback has them
    uint32_t waiting;  // messages, before any were dropped
    uint32_t droppedMessages;
    uint64_t droppedBytes;
};

// The process's pool of records. While there is none they come from the heap. No record is in use
// when the pool goes.
[[nodiscard]] pelmoStatus writeRecordPoolCreate();
void writeRecordPoolDestroy();

void writeQueueInit(WriteQueue* queue, uint32_t byteLimit);

// Drops all that waits.
void writeQueueClear(WriteQueue* queue);

[[nodiscard]] inline bool writeQueueIsEmpty(const WriteQueue* queue) {
    return queue->current.buffer == nullptr;
}

// `current` included.
[[nodiscard]] inline uint64_t writeQueueBytes(const WriteQueue* queue) {
    return queue->ringBytes + (queue->current.end - queue->current.start);
}

// How many of the last messages certainly haven't left whole: all, but of a record that is partly
// sent only the last one.
[[nodiscard]] uint32_t writeQueueUnsent(const WriteQueue* queue);

// A message that isn't urgent and not above kSmallMessageBytes joins the tail where that is small,
// or has room in a buffer of its own. Urgent pieces pass each other, too.
[[nodiscard]] pelmoStatus writeQueueAdd(WriteQueue* queue, const WritePiece& piece, double now);

// Sets the time of `current`, which was added with kWriteTimeUnknown and could not be written at
// once.
void writeQueueStamp(WriteQueue* queue, double now);

// Fills an empty list with what comes next, at most `mostBytes` and the list's capacity of entries.
// Valid until the queue changes.
void writeQueueGather(const WriteQueue* queue, GatherList* list, uint32_t mostBytes);

// So many of the bytes that were gathered are sent.
WriteProgress writeQueueAdvance(WriteQueue* queue, uint32_t bytes);

// Finds, and by the settings drops, what is old or too much. Never drops `current`.
[[nodiscard]] AgeReport writeQueueCheckAge(WriteQueue* queue, double now);
