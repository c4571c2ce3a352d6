// Gather lists: the pieces of memory that one vector send takes, in order.
//
// Ownership: a list owns its entries, never the bytes that they point to.
//
// Failure: false when memory runs out; the list is then unchanged.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <sys/uio.h>

#include <cstdint>

struct GatherList {
    uint32_t capacity;
    uint32_t count;
    uint32_t total;  // bytes of all entries
    iovec* entries;
};

[[nodiscard]] bool gatherInit(GatherList* list, uint32_t capacity);
void gatherFree(GatherList* list);

// A full list doubles. False also when the total would leave 32 bits.
[[nodiscard]] bool gatherAdd(GatherList* list, const void* bytes, uint32_t length);

// Takes away from the front; more than there is empties the list.
void gatherDropEntries(GatherList* list, uint32_t count);
void gatherDropBytes(GatherList* list, uint32_t bytes);

void gatherClear(GatherList* list);
