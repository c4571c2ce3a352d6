#include "lib/msg/buffer.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "lib/base/sanitizer.h"
#include "lib/msg/pool.h"

namespace {

constexpr uint32_t kRecordBytes = sizeof(Buffer);
constexpr uint32_t kRecordsPerBlock = 100;
constexpr uint32_t kRecordRefresh = 10;

// The process's pool of records. While it is null, records come from the heap. It doesn't change
// while other threads run.
ChunkPool* recordPool = nullptr;

// As above.
bool countsBytes = false;
std::atomic<uint64_t> countedBytes{0};

// From one size of a buffer to another.
void noteSize(uint32_t before, uint32_t after) {
    if (!countsBytes) return;
    countedBytes.fetch_add(uint64_t{after} - uint64_t{before}, std::memory_order_relaxed);
}

void initRecord(void* chunk) {
    new (chunk) Buffer{};
}

void finiRecord(void* chunk) {
    std::destroy_at(static_cast<Buffer*>(chunk));
}

// A record of the process's pool may have kept a block, which is freed with it.
void finiRecordAndBlock(void* chunk) {
    std::free(static_cast<Buffer*>(chunk)->data);
    finiRecord(chunk);
}

ChunkPool* makePool(uint32_t count,
                    uint32_t inlineBytes,
                    uint32_t refreshCount,
                    PoolChunkFunction fini) {
    return poolCreate(count, kRecordBytes + inlineBytes, offsetof(Buffer, poolOwner), initRecord,
                      fini, 1, refreshCount, __FILE__, __LINE__);
}

// Most messages fit in a block of this size and grow in it at no cost. Every buffer on the heap has
// at least such a block, and may use its first `size` bytes.
constexpr uint32_t kLeastBlockBytes = 256;

uint32_t blockBytes(uint32_t size) {
    return std::max(size, kLeastBlockBytes);
}

// Marks the bytes of the block after `size` as out of bounds for the address sanitizer.
void showBytes(const uint8_t* data, uint32_t size) {
    ASAN_UNPOISON_MEMORY_REGION(data, size);
    ASAN_POISON_MEMORY_REGION(data + size, blockBytes(size) - size);
}

uint8_t* inlineBytesOf(Buffer* buffer) {
    return reinterpret_cast<uint8_t*>(buffer + 1);
}

bool isPrivate(const Buffer* buffer) {
    return buffer->pool != nullptr && poolChunkSize(buffer->pool) > kRecordBytes;
}

bool isInline(Buffer* buffer) {
    return isPrivate(buffer) && buffer->data == inlineBytesOf(buffer);
}

// Returns a record with one reference. It has no bytes yet, but its `data` may be a block that the
// record kept from its last use.
Buffer* takeRecord(ChunkPool* pool) {
    void* record =
        pool != nullptr ? poolTake(pool, __FILE__, __LINE__) : std::calloc(1, sizeof(Buffer));
    if (record == nullptr) return nullptr;
    if (pool == nullptr) initRecord(record);
    auto* buffer = static_cast<Buffer*>(record);
    buffer->size = 0;
    buffer->refCount.store(1, std::memory_order_relaxed);
    buffer->pool = pool;
    return buffer;
}

void giveRecord(Buffer* buffer) {
    if (buffer->pool != nullptr) {
        poolGive(buffer->pool, buffer, __FILE__, __LINE__);
    } else {
        std::free(buffer);
    }
}

void freeBytes(Buffer* buffer) {
    if (!isInline(buffer)) std::free(buffer->data);
    buffer->data = nullptr;
}

// A block of the least size stays with its pooled record, so that the next buffer takes both in one
// step.
bool keepsBlock(const Buffer* buffer) {
    return buffer->pool != nullptr && buffer->pool == recordPool && buffer->data != nullptr &&
           buffer->size <= kLeastBlockBytes;
}

// Inline bytes are part of the record and can't be reallocated: they are copied to the heap and
// stay unused until the record is freed.
void* resizeBytes(Buffer* buffer, uint32_t size) {
    if (!isInline(buffer)) {
        const bool fits = buffer->data != nullptr && blockBytes(size) == blockBytes(buffer->size);
        return fits ? buffer->data : std::realloc(buffer->data, blockBytes(size));
    }
    void* data = std::malloc(blockBytes(size));
    if (data != nullptr) std::memcpy(data, buffer->data, std::min(buffer->size, size));
    return data;
}

}  // namespace

pelmoStatus bufferPoolCreate() {
    if (recordPool == nullptr) {
        recordPool = makePool(kRecordsPerBlock, 0, kRecordRefresh, finiRecordAndBlock);
    }
    return recordPool != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void bufferPoolDestroy() {
    poolDestroy(recordPool, __FILE__, __LINE__);
    recordPool = nullptr;
}

pelmoStatus bufferPrivatePool(ChunkPool** out, uint32_t count, uint32_t bytes) {
    if (out == nullptr) return kStatusInvalidArgument;
    if (bytes > UINT32_MAX - kRecordBytes) return kStatusNoMemory;
    ChunkPool* pool = makePool(count, bytes, count / 10, finiRecord);
    if (pool == nullptr) return kStatusNoMemory;
    *out = pool;
    return kStatusSuccess;
}

Buffer* bufferCreateFrom(ChunkPool* pool, uint32_t size) {
    const bool fits = pool != nullptr && poolChunkSize(pool) - kRecordBytes == size;
    if (!fits || size == 0) return bufferCreate(size);
    Buffer* buffer = takeRecord(pool);
    if (buffer == nullptr) return nullptr;
    buffer->data = inlineBytesOf(buffer);
    buffer->size = size;
    noteSize(0, size);
    return buffer;
}

Buffer* bufferCreate(uint32_t size) {
    Buffer* buffer = takeRecord(recordPool);
    if (buffer == nullptr) return nullptr;
    if (size == 0) {
        freeBytes(buffer);
        return buffer;
    }
    if (size < kBufferLeastBytes) size = kBufferLeastBytes;
    if (size > kLeastBlockBytes) freeBytes(buffer);
    if (buffer->data == nullptr) {
        buffer->data = static_cast<uint8_t*>(std::malloc(blockBytes(size)));
    }
    if (buffer->data == nullptr) {
        giveRecord(buffer);
        return nullptr;
    }
    buffer->size = size;
    noteSize(0, size);
    showBytes(buffer->data, size);
    return buffer;
}

Buffer* bufferClone(const Buffer* source,
                    uint32_t sourceOffset,
                    uint32_t newSize,
                    uint32_t copySize) {
    assert(sourceOffset <= source->size && copySize <= source->size - sourceOffset);
    assert(copySize <= newSize);
    Buffer* buffer = bufferCreate(newSize);
    if (buffer == nullptr) return nullptr;
    if (copySize != 0) std::memcpy(buffer->data, source->data + sourceOffset, copySize);
    return buffer;
}

pelmoStatus bufferGrow(Buffer* buffer, int32_t additional) {
    const int64_t size = int64_t{buffer->size} + additional;
    if (size < 0 || size > UINT32_MAX) return kStatusNoMemory;
    if (size == 0) {
        freeBytes(buffer);
        noteSize(buffer->size, 0);
        buffer->size = 0;
        return kStatusSuccess;
    }
    void* data = resizeBytes(buffer, static_cast<uint32_t>(size));
    if (data == nullptr) return kStatusNoMemory;
    buffer->data = static_cast<uint8_t*>(data);
    noteSize(buffer->size, static_cast<uint32_t>(size));
    buffer->size = static_cast<uint32_t>(size);
    showBytes(buffer->data, buffer->size);
    return kStatusSuccess;
}

void bufferCountBytes() {
    countsBytes = true;
}

uint64_t bufferBytesCounted() {
    return countedBytes.load(std::memory_order_relaxed);
}

void bufferRetain(Buffer* buffer) {
    buffer->refCount.fetch_add(1, std::memory_order_relaxed);
}

void bufferRelease(Buffer* buffer) {
    if (buffer == nullptr) return;
    // The last holder must see what the others wrote before it frees the bytes.
    if (buffer->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    noteSize(buffer->size, 0);
    if (keepsBlock(buffer)) {
        leakCheckSkip(buffer->data);  // the leak check can't look into a poisoned record
        ASAN_POISON_MEMORY_REGION(buffer->data, kLeastBlockBytes);
    } else {
        freeBytes(buffer);
    }
    giveRecord(buffer);
}
