#include "lib/containers/line_pool.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kFirstSlabs = 16;
constexpr uint32_t kMostSlabs = UINT32_MAX / kLinesPerSlab;
constexpr size_t kSlabBytes = size_t{kLinesPerSlab} * kCacheLineBytes;

// The first line of a slab is not given out: it holds the heap's own address of the slab.
constexpr uint32_t kFirstLine = 1;

bool reservePlace(LinePool& pool) {
    if (pool.chains[0] != 0 || pool.placeCount < pool.slabCapacity) return true;
    if (pool.placeCount > kMostSlabs / 2) return false;
    const uint32_t capacity = pool.placeCount == 0 ? kFirstSlabs : pool.placeCount * 2;
    void* slabs = std::realloc(pool.slabs, capacity * sizeof(uint8_t*));
    if (slabs == nullptr) return false;
    pool.slabs = static_cast<uint8_t**>(slabs);
    void* states = std::realloc(pool.states, capacity * sizeof(LineSlab));
    if (states == nullptr) return false;
    pool.states = static_cast<LineSlab*>(states);
    pool.slabCapacity = capacity;
    return true;
}

// A place that is used again keeps its links: it may still be in chains.
uint32_t takePlace(LinePool& pool) {
    if (pool.chains[0] != 0) {
        const uint32_t place = pool.chains[0] - 1;
        pool.chains[0] = pool.states[place].links[0];
        return place;
    }
    pool.states[pool.placeCount] = {};
    return pool.placeCount++;
}

bool addSlab(LinePool& pool) {
    if (!reservePlace(pool)) return false;
    void* memory = std::malloc(kSlabBytes + kCacheLineBytes - 1);
    if (memory == nullptr) return false;
    const auto address = reinterpret_cast<uintptr_t>(memory) + kCacheLineBytes - 1;
    auto* slab = reinterpret_cast<uint8_t*>(address & ~uintptr_t{kCacheLineBytes - 1});
    std::memcpy(slab, &memory, sizeof memory);
    const uint32_t place = takePlace(pool);
    pool.slabs[place] = slab;
    ++pool.slabCount;
    pool.current = place + 1;
    pool.next = kFirstLine;
    return true;
}

void freeMemory(uint8_t* slab) {
    void* memory;
    std::memcpy(&memory, slab, sizeof memory);
    std::free(memory);
}

void freeSlab(LinePool& pool, uint32_t place) {
    freeMemory(pool.slabs[place]);
    pool.slabs[place] = nullptr;
    --pool.slabCount;
    if (pool.current == place + 1) pool.current = 0;
    LineSlab& state = pool.states[place];
    std::memset(state.freeBlocks, 0, sizeof state.freeBlocks);
    state.links[0] = pool.chains[0];
    pool.chains[0] = place + 1;
}

// The place of a slab with a free block of the size; UINT32_MAX for none.
uint32_t slabWithFree(LinePool& pool, uint32_t lines) {
    while (pool.chains[lines] != 0) {
        const uint32_t place = pool.chains[lines] - 1;
        LineSlab& state = pool.states[place];
        if (state.freeBlocks[lines] != 0) return place;
        pool.chains[lines] = state.links[lines];
        state.chained = static_cast<uint16_t>(state.chained & ~(1u << lines));
    }
    return UINT32_MAX;
}

}  // namespace

uint32_t linePoolTake(LinePool& pool, uint32_t lines) {
    assert(lines >= 1 && lines <= kBlockLinesMax);
    const uint32_t place = slabWithFree(pool, lines);
    if (place != UINT32_MAX) {
        LineSlab& state = pool.states[place];
        const uint32_t block = place * kLinesPerSlab + state.freeBlocks[lines];
        std::memcpy(&state.freeBlocks[lines], linePoolAt(pool, block), sizeof(uint16_t));
        state.usedLines = static_cast<uint16_t>(state.usedLines + lines);
        return block;
    }
    if ((pool.current == 0 || pool.next + lines > kLinesPerSlab) && !addSlab(pool)) return 0;
    const uint32_t block = (pool.current - 1) * kLinesPerSlab + pool.next;
    pool.next += lines;
    LineSlab& state = pool.states[pool.current - 1];
    state.usedLines = static_cast<uint16_t>(state.usedLines + lines);
    return block;
}

void linePoolGive(LinePool& pool, uint32_t block, uint32_t lines) {
    const uint32_t place = block / kLinesPerSlab;
    LineSlab& state = pool.states[place];
    assert(state.usedLines >= lines);
    state.usedLines = static_cast<uint16_t>(state.usedLines - lines);
    if (state.usedLines == 0) {
        freeSlab(pool, place);
        return;
    }
    std::memcpy(linePoolAt(pool, block), &state.freeBlocks[lines], sizeof(uint16_t));
    state.freeBlocks[lines] = static_cast<uint16_t>(block % kLinesPerSlab);
    const auto bit = static_cast<uint16_t>(1u << lines);
    if ((state.chained & bit) != 0) return;
    state.chained = static_cast<uint16_t>(state.chained | bit);
    state.links[lines] = pool.chains[lines];
    pool.chains[lines] = place + 1;
}

void linePoolClear(LinePool& pool) {
    for (uint32_t place = 0; place < pool.placeCount; ++place) {
        if (pool.slabs[place] != nullptr) freeMemory(pool.slabs[place]);
    }
    std::free(pool.slabs);
    std::free(pool.states);
    pool = {};
}
