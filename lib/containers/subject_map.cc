#include "lib/containers/subject_map.h"

#include <cstdlib>

namespace {

constexpr uint32_t kFirstCapacity = 4;

bool makeRoom(SubjectMap* map) {
    const uint32_t count = subjectMapCount(map);
    if (count < map->capacity) return true;
    if (count > UINT32_MAX / 2) return false;
    const uint32_t capacity = count == 0 ? kFirstCapacity : count * 2;
    void* records = std::realloc(map->records, capacity * sizeof(SubjectMapEntry*));
    if (records == nullptr) return false;
    map->records = static_cast<SubjectMapEntry**>(records);
    map->capacity = capacity;
    return true;
}

}  // namespace

SubjectMap* subjectMapCreate(uint32_t subjectOffset) {
    auto* map = static_cast<SubjectMap*>(std::calloc(1, sizeof(SubjectMap)));
    if (map != nullptr) map->subjectOffset = subjectOffset;
    return map;
}

void subjectMapDestroy(SubjectMap* map) {
    if (map == nullptr) return;
    std::free(map->records);
    probeClear(map->index);
    std::free(map);
}

pelmoStatus subjectMapInsert(SubjectMap* map, SubjectMapEntry* record) {
    const uint32_t hash = subjectHash(subjectMapSubject(map, record));
    if (!makeRoom(map) || !probeInsert(map->index, hash, record)) return kStatusNoMemory;
    const uint32_t position = subjectMapCount(map) - 1;
    *record = {.hash = hash, .position = position};
    map->records[position] = record;
    return kStatusSuccess;
}

void subjectMapRemove(SubjectMap* map, SubjectMapEntry* record) {
    probeRemove(map->index, record->hash, record);
    SubjectMapEntry* last = map->records[subjectMapCount(map)];
    last->position = record->position;
    map->records[record->position] = last;
}
