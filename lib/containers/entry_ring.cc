#include "lib/containers/entry_ring.h"

#include <bit>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kMostSlots = 1u << 31;

bool grow(EntryRing* ring) {
    const uint32_t before = ring->capacity;
    if (before == kMostSlots) return false;
    const size_t sizeBytes = size_t{before} * 2 * sizeof(void*);
    auto** slots = static_cast<void**>(std::realloc(ring->slots, sizeBytes));
    if (slots == nullptr) return false;

    if (ring->tail < ring->head) {
        std::memcpy(slots + before, slots, (size_t{ring->tail} + 1) * sizeof(void*));
        ring->tail = ring->head - 1 + ring->count;
    }
    ring->slots = slots;
    ring->capacity = before * 2;
    ring->mask = ring->capacity - 1;
    return true;
}

bool makeRoom(EntryRing* ring) {
    return ring->count + 1 < ring->capacity || grow(ring);
}

void dropFront(EntryRing* ring) {
    if (--ring->count == 0) {
        ring->head = ring->tail = 0;
    } else {
        ring->head = (ring->head + 1) & ring->mask;
    }
}

void dropBack(EntryRing* ring) {
    if (--ring->count == 0) {
        ring->head = ring->tail = 0;
    } else {
        ring->tail = (ring->tail - 1) & ring->mask;
    }
}

}  // namespace

EntryRing* EntryRing_Create(uint32_t capacity) {
    if (!std::has_single_bit(capacity)) return nullptr;
    auto* ring = static_cast<EntryRing*>(std::malloc(sizeof(EntryRing)));
    if (ring == nullptr) return nullptr;
    auto** slots = static_cast<void**>(std::malloc(capacity * sizeof(void*)));
    if (slots == nullptr) {
        std::free(ring);
        return nullptr;
    }
    *ring = {.count = 0,
             .capacity = capacity,
             .mask = capacity - 1,
             .head = 0,
             .tail = 0,
             .slots = slots};
    return ring;
}

void EntryRing_Destroy(EntryRing* ring) {
    if (ring == nullptr) return;
    std::free(ring->slots);
    std::free(ring);
}

bool EntryRing_PushBack(EntryRing* ring, void* entry) {
    if (!makeRoom(ring)) return false;
    if (ring->count != 0) ring->tail = (ring->tail + 1) & ring->mask;
    ring->slots[ring->tail] = entry;
    ++ring->count;
    return true;
}

bool EntryRing_PushFront(EntryRing* ring, void* entry) {
    if (!makeRoom(ring)) return false;
    if (ring->count != 0) ring->head = (ring->head - 1) & ring->mask;
    ring->slots[ring->head] = entry;
    ++ring->count;
    return true;
}

void* EntryRing_PopFront(EntryRing* ring) {
    if (ring->count == 0) return nullptr;
    void* entry = ring->slots[ring->head];
    dropFront(ring);
    return entry;
}

void* EntryRing_PopBack(EntryRing* ring) {
    if (ring->count == 0) return nullptr;
    void* entry = ring->slots[ring->tail];
    dropBack(ring);
    return entry;
}

void* EntryRing_RemoveAt(EntryRing* ring, uint32_t slot) {
    if (slot >= ring->capacity) return nullptr;
    uint32_t place = (slot - ring->head) & ring->mask;
    if (place >= ring->count) return nullptr;

    void* entry = ring->slots[slot];
    if (place < ring->count - 1 - place) {
        for (; place > 0; --place) {
            ring->slots[EntryRing_Slot(ring, place)] = ring->slots[EntryRing_Slot(ring, place - 1)];
        }
        dropFront(ring);
    } else {
        for (; place + 1 < ring->count; ++place) {
            ring->slots[EntryRing_Slot(ring, place)] = ring->slots[EntryRing_Slot(ring, place + 1)];
        }
        dropBack(ring);
    }
    return entry;
}
