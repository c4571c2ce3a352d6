#include "lib/transport/ipq/write_queue.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/containers/entry_ring.h"
#include "lib/msg/buffer.h"
#include "lib/msg/pool.h"
#include "lib/transport/socket/gather_list.h"

namespace {

constexpr uint32_t kRecordsPerBlock = 1024;
constexpr uint32_t kRecordsAtATime = 64;
constexpr uint32_t kFirstRingSlots = 8;
constexpr uint32_t kKeptRingSlots = 64;   // an empty ring with more goes
constexpr uint64_t kMuchBytes = 0x40000;  // of buffers: unused room is given back

ChunkPool* recordPool = nullptr;

WriteRecord* takeRecord() {
    if (recordPool == nullptr) {
        return static_cast<WriteRecord*>(std::calloc(1, sizeof(WriteRecord)));
    }
    return static_cast<WriteRecord*>(poolTake(recordPool, __FILE__, __LINE__));
}

void giveRecord(WriteRecord* record) {
    if (record->poolOwner == nullptr) {
        std::free(record);
    } else {
        poolGive(recordPool, record, __FILE__, __LINE__);
    }
}

// All but the pool's word.
void copyRecord(WriteRecord* to, const WriteRecord& from) {
    void* const owner = to->poolOwner;
    *to = from;
    to->poolOwner = owner;
}

uint32_t bytesOf(const WriteRecord* record) {
    return record->end - record->start;
}

WriteRecord* recordAt(const EntryRing* ring, uint32_t place) {
    return static_cast<WriteRecord*>(ring->slots[EntryRing_Slot(ring, place)]);
}

uint32_t ringCount(const WriteQueue* queue) {
    return queue->ring != nullptr ? queue->ring->count : 0;
}

void releaseBuffer(WriteQueue* queue, WriteRecord* record) {
    queue->bufferBytes -= record->buffer->size;
    queue->messages -= record->count;
    bufferRelease(std::exchange(record->buffer, nullptr));
}

// A burst's ring doesn't stay for good.
void trimRing(WriteQueue* queue) {
    if (queue->ring->count != 0 || queue->ring->capacity <= kKeptRingSlots) return;
    EntryRing_Destroy(std::exchange(queue->ring, nullptr));
}

// The first record of the ring is written next.
void promoteFirst(WriteQueue* queue) {
    queue->current.start = queue->current.end = 0;
    queue->currentIsBegun = false;
    if (ringCount(queue) == 0) return;
    auto* const first = static_cast<WriteRecord*>(EntryRing_PopFront(queue->ring));
    queue->ringBytes -= bytesOf(first);
    copyRecord(&queue->current, *first);
    giveRecord(first);
    trimRing(queue);
}

// Coalescing

WriteRecord* tailOf(WriteQueue* queue) {
    const uint32_t count = ringCount(queue);
    return count != 0 ? recordAt(queue->ring, count - 1) : &queue->current;
}

// What joins an urgent record that waits would never be dropped as old.
bool canJoin(const WriteQueue* queue, const WriteRecord* tail, const WritePiece& piece) {
    if (piece.urgent || piece.length > kSmallMessageBytes) return false;
    if (tail->urgent && tail != &queue->current) return false;
    if (tail->coalescing) return piece.length <= tail->buffer->size - tail->end;
    return bytesOf(tail) <= kSmallMessageBytes;
}

bool giveOwnBuffer(WriteQueue* queue, WriteRecord* tail) {
    const uint32_t bytes = bytesOf(tail);
    Buffer* const own = bufferClone(tail->buffer, tail->start, kCoalescingBytes, bytes);
    if (own == nullptr) return false;
    queue->bufferBytes += uint64_t{own->size} - tail->buffer->size;
    bufferRelease(std::exchange(tail->buffer, own));
    tail->start = 0;
    tail->end = bytes;
    tail->coalescing = true;
    return true;
}

pelmoStatus join(WriteQueue* queue, WriteRecord* tail, const WritePiece& piece, double now) {
    if (!tail->coalescing && !giveOwnBuffer(queue, tail)) return kStatusNoMemory;
    std::memcpy(tail->buffer->data + tail->end, piece.buffer->data + piece.offset, piece.length);
    tail->end += piece.length;
    tail->count += piece.count;
    tail->time = now == kWriteTimeUnknown ? now : now + kOldAfterSeconds;
    queue->messages += piece.count;
    if (tail != &queue->current) queue->ringBytes += piece.length;
    return kStatusSuccess;
}

// A tail that nothing joins any more gives back the room that it leaves unused, once much waits:
// two small messages and a large one in turn would keep several times what they need. Without
// memory it stays as it is.
void giveRoomBack(WriteQueue* queue, WriteRecord* tail) {
    const uint32_t bytes = bytesOf(tail);
    if (!tail->coalescing || queue->bufferBytes < kMuchBytes) return;
    if (bytes > tail->buffer->size / 2) return;
    Buffer* const own = bufferClone(tail->buffer, tail->start, bytes, bytes);
    if (own == nullptr) return;
    queue->bufferBytes -= tail->buffer->size - own->size;
    bufferRelease(std::exchange(tail->buffer, own));
    tail->start = 0;
    tail->end = bytes;
    tail->coalescing = false;
}

// Adding

void fill(WriteQueue* queue, WriteRecord* record, const WritePiece& piece, double now) {
    bufferRetain(piece.buffer);
    queue->messages += piece.count;
    queue->bufferBytes += piece.buffer->size;
    copyRecord(record, {.time = now == kWriteTimeUnknown ? now : now + kOldAfterSeconds,
                        .buffer = piece.buffer,
                        .start = piece.offset,
                        .end = piece.offset + piece.length,
                        .count = piece.count,
                        .coalescing = false,
                        .urgent = piece.urgent,
                        .poolOwner = nullptr});
}

bool pushRecord(WriteQueue* queue, WriteRecord* record, bool urgent) {
    if (queue->ring == nullptr) queue->ring = EntryRing_Create(kFirstRingSlots);
    if (queue->ring == nullptr) return false;
    return urgent ? EntryRing_PushFront(queue->ring, record)
                  : EntryRing_PushBack(queue->ring, record);
}

pelmoStatus addToRing(WriteQueue* queue, const WritePiece& piece, double now) {
    WriteRecord* const record = takeRecord();
    if (record == nullptr) return kStatusNoMemory;
    if (!pushRecord(queue, record, piece.urgent)) {
        giveRecord(record);
        return kStatusNoMemory;
    }
    fill(queue, record, piece, now);
    queue->ringBytes += piece.length;
    return kStatusSuccess;
}

// Age

bool isOld(const WriteQueue* queue, const WriteRecord* record, double now) {
    return record->time != kWriteTimeUnknown && queue->ageSeconds + record->time <= now;
}

// Urgent records are in front of older ones.
bool hasOld(const WriteQueue* queue, double now) {
    if (queue->ageSeconds <= 0 || writeQueueIsEmpty(queue)) return false;
    if (isOld(queue, &queue->current, now)) return true;
    for (uint32_t place = 0; place < ringCount(queue); ++place) {
        const WriteRecord* const record = recordAt(queue->ring, place);
        if (isOld(queue, record, now)) return true;
        if (!record->urgent) return false;
    }
    return false;
}

void dropRecord(WriteQueue* queue, WriteRecord* record, AgeReport* report) {
    report->droppedMessages += record->count;
    report->droppedBytes += bytesOf(record);
    queue->ringBytes -= bytesOf(record);
    releaseBuffer(queue, record);
    giveRecord(record);
}

void dropFirst(WriteQueue* queue, AgeReport* report) {
    dropRecord(queue, static_cast<WriteRecord*>(EntryRing_PopFront(queue->ring)), report);
}

// The first record that is neither old nor urgent is followed by younger ones only.
uint32_t endOfOld(const WriteQueue* queue, double now) {
    uint32_t place = 0;
    for (; place < ringCount(queue); ++place) {
        const WriteRecord* const record = recordAt(queue->ring, place);
        if (!record->urgent && !isOld(queue, record, now)) break;
    }
    return place;
}

// One pass, however many urgent records are among the old ones: those that stay move together
// towards the end of the stretch, and its front goes.
void dropOld(WriteQueue* queue, double now, AgeReport* report) {
    uint32_t kept = endOfOld(queue, now);
    for (uint32_t place = kept; place-- > 0;) {
        WriteRecord* const record = recordAt(queue->ring, place);
        if (isOld(queue, record, now)) {
            dropRecord(queue, record, report);
        } else {
            queue->ring->slots[EntryRing_Slot(queue->ring, --kept)] = record;
        }
    }
    while (kept-- > 0)
        EntryRing_PopFront(queue->ring);
}

void dropAboveLimit(WriteQueue* queue, AgeReport* report) {
    while (ringCount(queue) != 0 && queue->ringBytes >= queue->byteLimit)
        dropFirst(queue, report);
}

}  // namespace

pelmoStatus writeRecordPoolCreate() {
    if (recordPool == nullptr) {
        recordPool =
            poolCreate(kRecordsPerBlock, sizeof(WriteRecord), offsetof(WriteRecord, poolOwner),
                       nullptr, nullptr, 0, kRecordsAtATime, __FILE__, __LINE__);
    }
    return recordPool != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void writeRecordPoolDestroy() {
    poolDestroy(std::exchange(recordPool, nullptr), __FILE__, __LINE__);
}

void writeQueueInit(WriteQueue* queue, uint32_t byteLimit) {
    *queue = {};
    queue->byteLimit = byteLimit;
}

void writeQueueClear(WriteQueue* queue) {
    AgeReport ignored = {};
    while (ringCount(queue) != 0)
        dropFirst(queue, &ignored);
    EntryRing_Destroy(std::exchange(queue->ring, nullptr));
    if (!writeQueueIsEmpty(queue)) releaseBuffer(queue, &queue->current);
    queue->current = {};
    queue->currentIsBegun = false;
}

uint32_t writeQueueUnsent(const WriteQueue* queue) {
    const uint32_t whole = queue->currentIsBegun ? queue->current.count : 0;
    return queue->messages - whole + (whole != 0 ? 1 : 0);
}

pelmoStatus writeQueueAdd(WriteQueue* queue, const WritePiece& piece, double now) {
    if (writeQueueIsEmpty(queue)) {
        fill(queue, &queue->current, piece, now);
        return kStatusSuccess;
    }
    WriteRecord* const tail = tailOf(queue);
    if (canJoin(queue, tail, piece)) return join(queue, tail, piece, now);
    if (!piece.urgent) giveRoomBack(queue, tail);
    return addToRing(queue, piece, now);
}

void writeQueueStamp(WriteQueue* queue, double now) {
    if (queue->current.time == kWriteTimeUnknown) queue->current.time = now + kOldAfterSeconds;
}

void writeQueueGather(const WriteQueue* queue, GatherList* list, uint32_t mostBytes) {
    const WriteRecord* record = &queue->current;
    const uint32_t records = ringCount(queue) + 1;
    const uint32_t most = std::min(records, list->capacity);
    for (uint32_t place = 0; place < most && list->total < mostBytes; ++place) {
        if (place != 0) record = recordAt(queue->ring, place - 1);
        if (record->buffer == nullptr) return;
        const uint32_t bytes = std::min(bytesOf(record), mostBytes - list->total);
        if (!gatherAdd(list, record->buffer->data + record->start, bytes)) return;
    }
}

WriteProgress writeQueueAdvance(WriteQueue* queue, uint32_t bytes) {
    WriteProgress progress = {};
    WriteRecord* const current = &queue->current;
    while (bytes != 0 && current->buffer != nullptr) {
        const uint32_t left = bytesOf(current);
        if (bytes < left) {
            current->start += bytes;
            queue->currentIsBegun = true;
            progress.endsWithin = true;
            break;
        }
        bytes -= left;
        progress.messages += current->count;
        releaseBuffer(queue, current);
        promoteFirst(queue);
    }
    return progress;
}

AgeReport writeQueueCheckAge(WriteQueue* queue, double now) {
    AgeReport report = {};
    report.waiting = queue->messages;
    if (queue->byteLimit != 0 && queue->ringBytes > queue->byteLimit) report.level = 3;
    if (!queue->discards) {
        if (report.level == 0 && hasOld(queue, now)) report.level = 2;
        return report;
    }
    if (report.level == 3) {
        dropAboveLimit(queue, &report);
    } else if (queue->ageSeconds > 0) {
        dropOld(queue, now, &report);
        if (report.droppedBytes != 0) report.level = 1;
    }
    return report;
}
