// The walk over a chained hash table, entry by entry and bucket by bucket, during which the current
// entry may be removed. Tables keep their own entries and give their bucket array.

#pragma once

#include <cstdint>

template <typename Entry>
struct ChainCursor {
    uint32_t index;  // next chain to visit
    Entry* current;  // current entry
    Entry** link;    // what points to `current`: a bucket, or the entry before it
    bool removed;    // `current` is already the one after a removed entry
};

// The next entry, or null at the end. `lastHead` is the index of the last chain.
template <typename Entry>
inline Entry* chainNext(ChainCursor<Entry>& cursor, Entry** heads, uint32_t lastHead) {
    if (!cursor.removed && cursor.current != nullptr) {
        cursor.link = &cursor.current->next;
        cursor.current = *cursor.link;
    }
    cursor.removed = false;
    while (cursor.current == nullptr) {
        if (cursor.index > lastHead) return nullptr;
        cursor.link = &heads[cursor.index++];
        cursor.current = *cursor.link;
    }
    return cursor.current;
}

// Takes the entry last returned out of its chain and gives it to the caller; null if there is none
// or it was removed already.
template <typename Entry>
inline Entry* chainTakeOut(ChainCursor<Entry>& cursor) {
    if (cursor.removed || cursor.current == nullptr) return nullptr;
    Entry* entry = cursor.current;
    cursor.current = entry->next;
    *cursor.link = cursor.current;
    cursor.removed = true;
    return entry;
}
