// Growable arrays of pointer-sized values: the list of the whole system.
//
// Ownership: an array owns its slots, never what the values point to. With pools it borrows them:
// `pool` holds the array itself, `itemPool` its slot while the capacity is 1.
//
// Failure: an append or insertion without memory returns false and changes nothing. The value 0
// can't be stored.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/containers/item_pool.h"

struct Dpa {
    uint32_t count;
    uint32_t capacity;  // at least 1
    void** items;

    // Constant after creation.
    const ItemPool* pool;      // null: the heap
    const ItemPool* itemPool;  // null: the heap
};

// Negative where `key` comes before `item`, 0 where they are equal.
using DpaComparator = int (*)(const void* key, const void* item);

// A capacity of 0 counts as 1. Null when memory runs out.
[[nodiscard]] Dpa* dpaCreate(uint32_t capacity);
[[nodiscard]] Dpa* dpaCreateWithPools(uint32_t capacity,
                                      const ItemPool* pool,
                                      const ItemPool* itemPool);

// Returns null, to assign to the pointer. Null is allowed.
Dpa* dpaDestroy(Dpa* array);

// A full array doubles.
[[nodiscard]] bool dpaAppend(Dpa* array, void* value);

// Makes room for this many items in all: appends up to that number can't fail. A growth at least
// doubles.
[[nodiscard]] bool dpaReserve(Dpa* array, uint32_t count);

// False for a null source. If the sum exceeds the capacity, the capacity grows by the source's
// count.
[[nodiscard]] bool dpaAppendAll(Dpa* target, const Dpa* source);

// Index, or the complement of the count.
[[nodiscard]] int32_t dpaIndexOf(const Dpa* array, const void* value);

// Binary search in a sorted array; without a comparator by the values themselves. The index of an
// equal item, or the complement of the place to insert at.
[[nodiscard]] int32_t dpaSearch(const Dpa* array, const void* key, DpaComparator compare);

// Inserts after all equal items.
[[nodiscard]] bool dpaInsertSorted(Dpa* array, void* value, DpaComparator compare);

// The last item moves into the hole. The value's index, or the complement of the count.
int32_t dpaRemoveValue(Dpa* array, const void* value);

// Closes the gap and keeps the order. False for an index out of range.
bool dpaRemoveAt(Dpa* array, uint32_t index);

// dpaSearch and dpaRemoveAt: the index, or the search's result.
int32_t dpaRemoveSorted(Dpa* array, const void* key, DpaComparator compare);
