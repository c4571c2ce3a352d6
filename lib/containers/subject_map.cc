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

uint32_t hashOf(const void* record) {
    return static_cast<const SubjectMapEntry*>(record)->hash;
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
    const uint32_t position = subjectMapCount(map);
    if (!makeRoom(map) || !probeReserve(map->index, position + 1, hashOf)) return kStatusNoMemory;
    *record = {.hash = subjectHash(subjectMapSubject(map, record)), .position = position};
    (void)probeInsert(map->index, record, hashOf);
    map->records[position] = record;
    return kStatusSuccess;
}

void subjectMapRemove(SubjectMap* map, SubjectMapEntry* record) {
    probeRemove(map->index, record, hashOf);
    SubjectMapEntry* last = map->records[subjectMapCount(map)];
    last->position = record->position;
    map->records[record->position] = last;
}
