// Blocks of whole cache lines, known by a number of 32 bits: for small records that are many, lie
// all over memory and are touched one by one. A block starts on a line, so that what fits into one
// line costs one trip to memory, and an index of numbers is half the size of one of pointers.
//
// Lines come from slabs of 64 KiB that never move; a block lies within one slab. Blocks that are
// given back serve later ones of the same size.
//
// Ownership: the pool owns all memory and gives none back to the heap until linePoolClear. A pool
// is usable zeroed, and costs nothing until the first block.
//
// Failure: 0, which is no block's number, when memory runs out.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/prefetch.h"

constexpr uint32_t kLinesPerSlab = 1024;
constexpr uint32_t kBlockLinesMax = 8;

struct LinePool {
    uint8_t** slabs;
    uint32_t slabCount;
    uint32_t slabCapacity;  // of `slabs`
    uint32_t next;          // line of the last slab that was never given out
    uint32_t
        freeBlocks[kBlockLinesMax + 1];  // by size: the newest; each begins with the next one's
};

// `lines` is 1 to kBlockLinesMax. The block's bytes are undefined.
[[nodiscard]] uint32_t linePoolTake(LinePool& pool, uint32_t lines);

// `lines` as it was taken.
void linePoolGive(LinePool& pool, uint32_t block, uint32_t lines);

// Frees all slabs and leaves an empty pool.
void linePoolClear(LinePool& pool);

[[nodiscard]] inline uint8_t* linePoolAt(const LinePool& pool, uint32_t block) {
    return pool.slabs[block / kLinesPerSlab] + size_t{block % kLinesPerSlab} * kCacheLineBytes;
}

[[nodiscard]] constexpr uint32_t linesFor(size_t sizeBytes) {
    return static_cast<uint32_t>((sizeBytes + kCacheLineBytes - 1) / kCacheLineBytes);
}
