#include "lib/transport/reliable/deadline_heap.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr uint32_t kFirstSlots = 16;

void put(DeadlineHeap* heap, uint32_t slot, Deadline* deadline) {
    heap->slots[slot] = deadline;
    deadline->place = slot + 1;
}

// Both move the hole at `slot` until the deadline fits into it.
void siftUp(DeadlineHeap* heap, uint32_t slot, Deadline* deadline) {
    while (slot > 0) {
        Deadline* const parent = heap->slots[(slot - 1) / 2];
        if (parent->at <= deadline->at) break;
        put(heap, slot, parent);
        slot = (slot - 1) / 2;
    }
    put(heap, slot, deadline);
}

void siftDown(DeadlineHeap* heap, uint32_t slot, Deadline* deadline) {
    while (slot * 2 + 1 < heap->count) {
        uint32_t child = slot * 2 + 1;
        const uint32_t other = child + 1;
        if (other < heap->count && heap->slots[other]->at < heap->slots[child]->at) child = other;
        if (deadline->at <= heap->slots[child]->at) break;
        put(heap, slot, heap->slots[child]);
        slot = child;
    }
    put(heap, slot, deadline);
}

void settle(DeadlineHeap* heap, uint32_t slot, Deadline* deadline) {
    const bool isSooner = slot > 0 && deadline->at < heap->slots[(slot - 1) / 2]->at;
    isSooner ? siftUp(heap, slot, deadline) : siftDown(heap, slot, deadline);
}

void takeOut(DeadlineHeap* heap, Deadline* deadline) {
    const uint32_t slot = deadline->place - 1;
    deadline->place = 0;
    Deadline* const last = heap->slots[--heap->count];
    if (last != deadline) settle(heap, slot, last);
}

}  // namespace

bool deadlineHeapReserve(DeadlineHeap* heap, uint32_t deadlines) {
    if (deadlines <= heap->capacity) return true;
    const uint32_t capacity = std::max({kFirstSlots, heap->capacity * 2, deadlines});
    auto** const slots =
        static_cast<Deadline**>(std::realloc(heap->slots, capacity * sizeof(Deadline*)));
    if (slots == nullptr) return false;
    heap->slots = slots;
    heap->capacity = capacity;
    return true;
}

void deadlineHeapFree(DeadlineHeap* heap) {
    std::free(heap->slots);
    *heap = {};
}

void deadlineSet(DeadlineHeap* heap, Deadline* deadline, double at) {
    const double before = deadline->at;
    deadline->at = at;
    if (deadline->place == 0) {
        if (at < kNever) siftUp(heap, heap->count++, deadline);
    } else if (at >= kNever) {
        takeOut(heap, deadline);
    } else if (at != before) {
        settle(heap, deadline->place - 1, deadline);
    }
}
