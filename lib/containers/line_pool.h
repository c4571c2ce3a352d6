// Blocks of whole cache lines, known by a number of 32 bits: for many small records that are
// scattered in memory and used one by one. A block starts on a line, so that what fits into one
// line costs one memory access, and an index of numbers is half the size of one of pointers.
//
// Lines come from slabs of 64 KiB that never move; a block lies within one slab. Blocks that are
// given back serve later ones of the same size in their slab, until all lines of the slab are free:
// it then goes back to the heap, and its numbers serve the next new slab.
//
// Ownership: the pool owns all memory. A pool is usable zeroed, and costs no memory until the first
// block.
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

// The state of a slab. Slabs with free blocks of a size are in a chain by that size, and leave it
// when a search finds them without one. A link is a place in `slabs` plus 1; 0 ends a chain.
struct LineSlab {
    uint16_t usedLines;
    uint16_t chained;                         // a bit for each size
    uint16_t freeBlocks[kBlockLinesMax + 1];  // by size: the newest's line, 0 for none; each begins
                                              // with the next one's
    uint32_t links[kBlockLinesMax + 1];       // links[0]: of places without a slab
};

struct LinePool {
    uint8_t** slabs;  // null where the slab was freed
    LineSlab* states;
    uint32_t slabCount;                   // that are held
    uint32_t placeCount;                  // of `slabs` and `states`
    uint32_t slabCapacity;                // of both
    uint32_t current;                     // the link of the slab that new blocks come from
    uint32_t next;                        // its first line that was never given out
    uint32_t chains[kBlockLinesMax + 1];  // by size; chains[0]: of places without a slab
};

// `lines` is 1 to kBlockLinesMax. The block's bytes are undefined.
[[nodiscard]] uint32_t linePoolTake(LinePool& pool, uint32_t lines);

// `lines` must be the same as in the take.
void linePoolGive(LinePool& pool, uint32_t block, uint32_t lines);

// Frees all slabs, blocks in use included, and leaves an empty pool.
void linePoolClear(LinePool& pool);

[[nodiscard]] inline uint8_t* linePoolAt(const LinePool& pool, uint32_t block) {
    return pool.slabs[block / kLinesPerSlab] + size_t{block % kLinesPerSlab} * kCacheLineBytes;
}

[[nodiscard]] constexpr uint32_t linesFor(size_t sizeBytes) {
    return static_cast<uint32_t>((sizeBytes + kCacheLineBytes - 1) / kCacheLineBytes);
}
