// The counted byte store under every message. A Buffer record comes from the process's pool of such
// records and has its bytes on the heap; in a private pool its bytes follow it in the chunk:
//
//     | Buffer, 32 bytes | inline bytes ...   |
//
// so that reading from a stream costs a single take. Without a pool records come from the heap. A
// record of the process's pool keeps a small block of bytes while it is free: so a new message's
// buffer costs one take too in the steady state.
//
// Ownership: counted. Each create and retain needs a release; the last release frees.
//
// Failure: null, or kStatusNoMemory and an unchanged buffer.
//
// Threads: the count is atomic, and holders may release on any thread. Only the single holder of an
// unshared buffer changes `data` and `size`.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/status.h"

struct ChunkPool;  // lib/msg/pool.h

struct Buffer {
    uint8_t* data;  // null while there are no bytes and never were
    uint32_t size;  // bytes at `data`
    std::atomic<uint32_t> refCount;
    ChunkPool* pool;  // of the record; null for one from the heap
    void* poolOwner;  // the pool's own word, not ours to touch
};

// No buffer with bytes has fewer.
constexpr uint32_t kBufferLeastBytes = 32;

// The process's pool of records, made before other threads run. Nobody holds a record of it when it
// goes.
[[nodiscard]] pelmoStatus bufferPoolCreate();
void bufferPoolDestroy();

// A pool of records with so many inline bytes each, `count` to a block, for bufferCreateFrom. It is
// destroyed by poolDestroy. kStatusInvalidArgument for no output; kStatusNoMemory also for sizes
// that make no block.
[[nodiscard]] pelmoStatus bufferPrivatePool(ChunkPool** out, uint32_t count, uint32_t bytes);

// The bytes aren't zeroed. A size of 1 to 31 becomes 32.
[[nodiscard]] Buffer* bufferCreate(uint32_t size);

// With the bytes inline, however few, where they are exactly as many as the pool's; otherwise, and
// for no pool, as bufferCreate.
[[nodiscard]] Buffer* bufferCreateFrom(ChunkPool* pool, uint32_t size);

// A new buffer, beginning with a copy of bytes that `source` has and that fit.
[[nodiscard]] Buffer* bufferClone(const Buffer* source,
                                  uint32_t sourceOffset,
                                  uint32_t newSize,
                                  uint32_t copySize);

// Adds bytes at the end, or takes some away; `data` may move. kStatusNoMemory also for a size that
// no buffer can have.
[[nodiscard]] pelmoStatus bufferGrow(Buffer* buffer, int32_t additional);

void bufferRetain(Buffer* buffer);
void bufferRelease(Buffer* buffer);  // null is ignored

// For a process that bounds what its buffers take: their bytes are counted from here on. Called
// once, before there are buffers and other threads.
void bufferCountBytes();

// Of all buffers that live, each once however many hold it; 0 while they aren't counted.
[[nodiscard]] uint64_t bufferBytesCounted();

[[nodiscard]] inline bool bufferIsShared(const Buffer* buffer) {
    // A former holder released it after its last read.
    return buffer->refCount.load(std::memory_order_acquire) >= 2;
}
