// The records of one kind under one parent that had traffic since the last snapshot, so that the
// next one visits only those. A record joins when its `live` goes from 0 to 1.
//
// Ownership: a list owns its array, not the records. A zeroed list is empty and usable.
//
// Failure: liveReserve makes the room when a record is created, so joining can't fail.
//
// Threads: under `statsLock`.

#pragma once

#include <cstdint>
#include <cstdlib>

template <typename Record>
struct LiveList {
    Record** records;
    uint32_t count;
    uint32_t members;   // records that may join
    uint32_t capacity;  // at least `members`
};

// Makes room for one more member. False when memory runs out; the list is then unchanged.
template <typename Record>
[[nodiscard]] bool liveReserve(LiveList<Record>& list) {
    constexpr uint32_t kFirstCapacity = 4;
    if (list.members < list.capacity) return true;
    const uint32_t capacity = list.capacity == 0 ? kFirstCapacity : list.capacity * 2;
    void* records = std::realloc(list.records, capacity * sizeof(Record*));
    if (records == nullptr) return false;
    list.records = static_cast<Record**>(records);
    list.capacity = capacity;
    return true;
}

template <typename Record>
void liveJoin(LiveList<Record>& list, Record& record) {
    if (record.live != 0) return;
    record.live = 1;
    list.records[list.count++] = &record;
}

template <typename Record>
void liveFree(LiveList<Record>& list) {
    std::free(list.records);
    list = {};
}
