// An exact map from packed subjects to records: what the statistics keep for every subject that
// they have seen, looked up once for each captured message. It matches no wildcards and keeps no
// order but that of its places; where wildcards matter, see sublist.h.
//
// A record begins with a SubjectMapEntry and holds its packed subject at one fixed distance from
// its start, the same for all records of a map. So a look-up that succeeds touches a slot and the
// record, nothing else:
//
//     struct Record {
//         SubjectMapEntry entry;
//         uint64_t messages;
//     };                                // allocated with its subject behind it
//     SubjectMap* map = subjectMapCreate(sizeof(Record));
//
// Ownership: the map owns its slots and places; records belong to the caller, keep their address
// and their subject while they stand in the map.
//
// Failure: kStatusNoMemory from an insertion, which then leaves map and record as they were.
//
// Threads: no lock; the owner serialises changes.

#pragma once

#include <cstdint>
#include <cstring>

#include "lib/base/status.h"
#include "lib/containers/probe_index.h"
#include "lib/containers/subject.h"

// Written by the map.
struct SubjectMapEntry {
    uint32_t hash;
    uint32_t position;  // 0 to count - 1
};

struct SubjectMap {
    uint32_t subjectOffset;  // constant: from a record's start to its packed subject, in bytes
    uint32_t capacity;       // of `records`
    SubjectMapEntry** records;
    ProbeIndex index;
};

// Null when memory runs out.
[[nodiscard]] SubjectMap* subjectMapCreate(uint32_t subjectOffset);

// Nothing happens for no map.
void subjectMapDestroy(SubjectMap* map);

// `record` carries its subject already, one that the map doesn't hold. It gets the last place.
[[nodiscard]] pelmoStatus subjectMapInsert(SubjectMap* map, SubjectMapEntry* record);

// The record of the last place moves to the place that falls free. A walk that removes therefore
// runs downwards.
void subjectMapRemove(SubjectMap* map, SubjectMapEntry* record);

[[nodiscard]] inline uint32_t subjectMapCount(const SubjectMap* map) {
    return map->index.count;
}

// `position` is below the count.
[[nodiscard]] inline SubjectMapEntry* subjectMapAt(const SubjectMap* map, uint32_t position) {
    return map->records[position];
}

[[nodiscard]] inline const uint8_t* subjectMapSubject(const SubjectMap* map,
                                                      const SubjectMapEntry* record) {
    return reinterpret_cast<const uint8_t*>(record) + map->subjectOffset;
}

// Null where the subject isn't there. `subject` is borrowed for the call.
[[nodiscard]] inline SubjectMapEntry* subjectMapFind(const SubjectMap* map,
                                                     const uint8_t* subject) {
    const size_t length = subjectLength(subject);
    const auto matches = [map, subject, length](void* entry) {
        const uint8_t* held = subjectMapSubject(map, static_cast<SubjectMapEntry*>(entry));
        return subjectLength(held) == length && std::memcmp(held, subject, length) == 0;
    };
    return static_cast<SubjectMapEntry*>(probeFind(map->index, subjectHash(subject), matches));
}

// Ahead of a look-up, as in probe_index.h: the slot, and then the record with so many bytes of its
// subject. `hash` is the subject's subjectHash.
inline void subjectMapPrefetchSlot(const SubjectMap* map, uint32_t hash) {
    probePrefetchSlot(map->index, hash);
}

inline void subjectMapPrefetchRecord(const SubjectMap* map, uint32_t hash, size_t subjectBytes) {
    probePrefetchEntry(map->index, hash, map->subjectOffset + subjectBytes);
}
