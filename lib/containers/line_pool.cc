#include "lib/containers/line_pool.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kFirstSlabs = 16;
constexpr uint32_t kMostSlabs = UINT32_MAX / kLinesPerSlab;
constexpr size_t kSlabBytes = size_t{kLinesPerSlab} * kCacheLineBytes;

// The first line of a slab is nobody's: it keeps the heap's own address of the slab.
constexpr uint32_t kFirstLine = 1;

bool reserveSlab(LinePool& pool) {
    if (pool.slabCount < pool.slabCapacity) return true;
    if (pool.slabCount > kMostSlabs / 2) return false;
    const uint32_t capacity = pool.slabCount == 0 ? kFirstSlabs : pool.slabCount * 2;
    void* slabs = std::realloc(pool.slabs, capacity * sizeof(uint8_t*));
    if (slabs == nullptr) return false;
    pool.slabs = static_cast<uint8_t**>(slabs);
    pool.slabCapacity = capacity;
    return true;
}

bool addSlab(LinePool& pool) {
    if (!reserveSlab(pool)) return false;
    void* memory = std::malloc(kSlabBytes + kCacheLineBytes - 1);
    if (memory == nullptr) return false;
    const auto address = reinterpret_cast<uintptr_t>(memory) + kCacheLineBytes - 1;
    auto* slab = reinterpret_cast<uint8_t*>(address & ~uintptr_t{kCacheLineBytes - 1});
    std::memcpy(slab, &memory, sizeof memory);
    pool.slabs[pool.slabCount++] = slab;
    pool.next = kFirstLine;
    return true;
}

}  // namespace

uint32_t linePoolTake(LinePool& pool, uint32_t lines) {
    assert(lines >= 1 && lines <= kBlockLinesMax);
    uint32_t& freeBlock = pool.freeBlocks[lines];
    if (freeBlock != 0) {
        const uint32_t block = freeBlock;
        std::memcpy(&freeBlock, linePoolAt(pool, block), sizeof freeBlock);
        return block;
    }
    if ((pool.slabCount == 0 || pool.next + lines > kLinesPerSlab) && !addSlab(pool)) return 0;
    const uint32_t block = (pool.slabCount - 1) * kLinesPerSlab + pool.next;
    pool.next += lines;
    return block;
}

void linePoolGive(LinePool& pool, uint32_t block, uint32_t lines) {
    std::memcpy(linePoolAt(pool, block), &pool.freeBlocks[lines], sizeof(uint32_t));
    pool.freeBlocks[lines] = block;
}

void linePoolClear(LinePool& pool) {
    for (uint32_t i = 0; i < pool.slabCount; ++i) {
        void* memory;
        std::memcpy(&memory, pool.slabs[i], sizeof memory);
        std::free(memory);
    }
    std::free(pool.slabs);
    pool = {};
}
