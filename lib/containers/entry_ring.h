// A double-ended ring of pointers that grows: queues of entries on their way, stacks of marks.
//
// The capacity is a power of two. One slot always stays free: the push that would fill the last one
// doubles the ring first, so that a ring of 8 holds at most 7 entries before it grows.
//
//     slots of a wrapped ring:   | e3 | e4 |    |    |    | e0 | e1 | e2 |
//                                       tail                head
//
// Ownership: a ring owns its slots, never what the entries point to.
//
// Failure: a push without memory returns false and doesn't store the entry.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>

struct EntryRing {
    uint32_t count;
    uint32_t capacity;
    uint32_t mask;  // capacity - 1
    uint32_t head;  // slot of the first entry
    uint32_t tail;  // slot of the last one; both are 0 while there is none
    void** slots;
};

// Null for a capacity that is no power of two, or when memory runs out.
[[nodiscard]] EntryRing* EntryRing_Create(uint32_t capacity);

// Null is allowed.
void EntryRing_Destroy(EntryRing* ring);

[[nodiscard]] bool EntryRing_PushBack(EntryRing* ring, void* entry);
[[nodiscard]] bool EntryRing_PushFront(EntryRing* ring, void* entry);

// Null for an empty ring.
void* EntryRing_PopFront(EntryRing* ring);
void* EntryRing_PopBack(EntryRing* ring);

// Slot of the entry at a place, from 0 for the first one.
[[nodiscard]] inline uint32_t EntryRing_Slot(const EntryRing* ring, uint32_t place) {
    return (ring->head + place) & ring->mask;
}

// Removes and returns the entry in that slot; null if the slot is empty. The side with fewer
// entries moves up, so slots may change their entries, while places before it don't: a walk that
// removes goes by places.
void* EntryRing_RemoveAt(EntryRing* ring, uint32_t slot);
