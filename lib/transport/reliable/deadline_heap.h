// Which of many records has something to do next: a heap of deadlines, the soonest on top. A
// deadline lies in its owner's record and knows its place in the heap, so that moving or dropping
// one needs no search.
//
// Ownership: the heap owns its slots; a deadline belongs to its owner, who sets it to kNever before
// it goes.
//
// Failure: only deadlineHeapReserve can fail. It is called before the first set of each deadline,
// with the number of all deadlines.
//
// Threads: no lock; the owner serialises all calls.
//
// Units: seconds.

#pragma once

#include <cstdint>

inline constexpr double kNever = 1e300;

// Zeroed to begin with.
struct Deadline {
    double at;
    uint32_t place;  // from 1 on; 0: not in the heap
};

struct DeadlineHeap {
    Deadline** slots;  // null until first needed
    uint32_t count;
    uint32_t capacity;
};

[[nodiscard]] bool deadlineHeapReserve(DeadlineHeap* heap, uint32_t deadlines);
void deadlineHeapFree(DeadlineHeap* heap);

// kNever takes it out.
void deadlineSet(DeadlineHeap* heap, Deadline* deadline, double at);

// Null for none.
[[nodiscard]] inline Deadline* deadlineFirst(const DeadlineHeap* heap) {
    return heap->count != 0 ? heap->slots[0] : nullptr;
}
