#include "lib/containers/subject_map.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t kFirstPlaces = 4;
constexpr uint32_t kFirstSlots = 8;
constexpr uint32_t kMostRecords = 1u << 30;
static_assert(linesFor(kSubjectMaxBytes) < kBlockLinesMax);

uint32_t hashOf(uint64_t slot) {
    return static_cast<uint32_t>(slot >> 32);
}

void enter(SubjectMap& map, uint64_t slot) {
    uint32_t at = hashOf(slot) & map.mask;
    while (map.slots[at] != 0) {
        at = (at + 1) & map.mask;
    }
    map.slots[at] = slot;
}

bool growPlaces(SubjectMap& map) {
    const uint32_t capacity = map.capacity == 0 ? kFirstPlaces : map.capacity * 2;
    void* places = std::realloc(map.places, capacity * sizeof(uint32_t));
    if (places == nullptr) return false;
    map.places = static_cast<uint32_t*>(places);
    map.capacity = capacity;
    return true;
}

bool growSlots(SubjectMap& map) {
    const uint64_t oldCount = map.slots == nullptr ? 0 : uint64_t{map.mask} + 1;
    const uint64_t count = oldCount == 0 ? kFirstSlots : oldCount * 2;
    auto* slots = static_cast<uint64_t*>(std::calloc(count, sizeof(uint64_t)));
    if (slots == nullptr) return false;
    uint64_t* const old = map.slots;
    map.slots = slots;
    map.mask = static_cast<uint32_t>(count - 1);
    for (uint64_t at = 0; at < oldCount; ++at) {
        if (old[at] != 0) enter(map, old[at]);
    }
    std::free(old);
    return true;
}

// At most four fifths of the slots are taken.
bool slotsAreFull(const SubjectMap& map) {
    return map.slots == nullptr || (uint64_t{map.count} + 1) * 5 > (uint64_t{map.mask} + 1) * 4;
}

// An entry after the hole moves into it, unless that would be before its home place: so no search
// ever meets a gap between an entry's place and the entry.
void closeGap(SubjectMap& map, uint32_t hole) {
    for (uint32_t at = (hole + 1) & map.mask; map.slots[at] != 0; at = (at + 1) & map.mask) {
        const uint32_t fromHome = (at - hashOf(map.slots[at])) & map.mask;
        const uint32_t fromHole = (at - hole) & map.mask;
        if (fromHome < fromHole) continue;
        map.slots[hole] = map.slots[at];
        hole = at;
    }
    map.slots[hole] = 0;
}

uint32_t linesOf(const SubjectMap& map, const uint8_t* subject) {
    return linesFor(map.headBytes + subjectLength(subject));
}

}  // namespace

bool subjectMapReserve(SubjectMap& map) {
    if (map.count >= kMostRecords) return false;
    if (map.count == map.capacity && !growPlaces(map)) return false;
    return !slotsAreFull(map) || growSlots(map);
}

uint8_t* subjectMapAdd(SubjectMap& map, const uint8_t* subject, uint32_t hash) {
    assert(map.count < map.capacity && !slotsAreFull(map));
    const uint32_t number = linePoolTake(*map.pool, linesOf(map, subject));
    if (number == 0) return nullptr;
    uint8_t* record = linePoolAt(*map.pool, number);
    std::memset(record, 0, map.headBytes);
    std::memcpy(record + map.headBytes, subject, subjectLength(subject));
    enter(map, uint64_t{hash} << 32 | number);
    map.places[map.count++] = number;
    return record;
}

void subjectMapRemove(SubjectMap& map, uint32_t place) {
    const uint32_t number = map.places[place];
    const uint8_t* subject = subjectMapAt(map, place) + map.headBytes;
    uint32_t at = subjectHash(subject) & map.mask;
    while (static_cast<uint32_t>(map.slots[at]) != number) {
        at = (at + 1) & map.mask;
    }
    closeGap(map, at);
    linePoolGive(*map.pool, number, linesOf(map, subject));
    map.places[place] = map.places[--map.count];
}

void subjectMapClear(SubjectMap& map) {
    while (map.count != 0) {
        --map.count;
        const uint8_t* subject = subjectMapAt(map, map.count) + map.headBytes;
        linePoolGive(*map.pool, map.places[map.count], linesOf(map, subject));
    }
    std::free(map.places);
    std::free(map.slots);
    map = {.pool = map.pool,
           .headBytes = map.headBytes,
           .count = 0,
           .capacity = 0,
           .mask = 0,
           .places = nullptr,
           .slots = nullptr};
}
