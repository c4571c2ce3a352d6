// An exact map from packed subjects to records: what the statistics keep for every subject that
// they have seen, looked up once for each captured message. It matches no wildcards; where
// wildcards matter, see sublist.h.
//
// A record is the user's head followed by the subject, in lines of a pool that maps share. An index
// of open addressing leads to it:
//
//     slot:    63      hash      32 31   number    0        0: free
//     record:  0    head    headBytes    packed subject
//
// So a look-up that succeeds touches only a slot and the record, and neither growth nor removal
// reads a record to learn where it belongs. The hash is seeded by the process, so that no peer can
// choose subjects that meet in one place.
//
// A walk goes by places, in the order of insertion except for removals.
//
// Ownership: the map owns its records; they keep their address until they are removed. It is usable
// once `pool` and `headBytes` are set and all else is zero.
//
// Failure: no memory; the map stays as it was.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <cstdint>

#include "lib/base/bytes.h"
#include "lib/base/prefetch.h"
#include "lib/containers/line_pool.h"
#include "lib/containers/subject.h"

struct SubjectMap {
    LinePool* pool;      // constant
    uint32_t headBytes;  // constant

    uint32_t count;
    uint32_t capacity;  // of `places`
    uint32_t mask;      // slots - 1; their number is a power of two
    uint32_t* places;   // numbers of records
    uint64_t* slots;    // null until the first record
};

// Makes room for one more record. False when memory runs out.
[[nodiscard]] bool subjectMapReserve(SubjectMap& map);

// After subjectMapReserve: a record at the last place, its head zeroed, for a well-formed subject
// that the map doesn't hold. `hash` is the subject's subjectHash. Null when memory runs out.
[[nodiscard]] uint8_t* subjectMapAdd(SubjectMap& map, const uint8_t* subject, uint32_t hash);

// Frees the record at the place, 0 to count - 1. The last place's record moves there: a walk that
// removes runs downwards.
void subjectMapRemove(SubjectMap& map, uint32_t place);

// Frees all records and the map's own memory.
void subjectMapClear(SubjectMap& map);

[[nodiscard]] inline uint8_t* subjectMapAt(const SubjectMap& map, uint32_t place) {
    return linePoolAt(*map.pool, map.places[place]);
}

// Null if the map doesn't have the subject. `subject` is `length` bytes of any content: the map
// holds only well-formed ones.
[[nodiscard, gnu::always_inline]] inline uint8_t* subjectMapFind(const SubjectMap& map,
                                                                 const uint8_t* subject,
                                                                 size_t length,
                                                                 uint32_t hash) {
    if (map.slots == nullptr) return nullptr;
    for (uint32_t at = hash & map.mask;; at = (at + 1) & map.mask) {
        const uint64_t slot = map.slots[at];
        if (slot == 0) return nullptr;
        if (slot >> 32 != hash) continue;
        uint8_t* record = linePoolAt(*map.pool, static_cast<uint32_t>(slot));
        if (subjectIs(record + map.headBytes, subject, length)) return record;
    }
}

// Before a look-up, in two steps with other work between: prefetches the slot, and the record with
// this many bytes of its subject.
inline void subjectMapPrefetchSlot(const SubjectMap& map, uint32_t hash) {
    if (map.slots != nullptr) prefetchLine(&map.slots[hash & map.mask]);
}

inline void subjectMapPrefetchRecord(const SubjectMap& map, uint32_t hash, size_t subjectBytes) {
    if (map.slots == nullptr) return;
    for (uint32_t at = hash & map.mask; map.slots[at] != 0; at = (at + 1) & map.mask) {
        if (map.slots[at] >> 32 != hash) continue;
        const auto number = static_cast<uint32_t>(map.slots[at]);
        return prefetchBytes(linePoolAt(*map.pool, number), map.headBytes + subjectBytes);
    }
}
