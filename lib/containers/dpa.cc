#include "lib/containers/dpa.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

// Indexes and their complements are signed.
constexpr uint32_t kMostItems = INT32_MAX;

int compareValues(const void* key, const void* item) {
    if (key == item) return 0;
    return std::less<>()(key, item) ? -1 : 1;
}

void** takeSlots(uint32_t capacity, const ItemPool* itemPool) {
    const ItemPool* pool = capacity == 1 ? itemPool : nullptr;
    return static_cast<void**>(itemTake(pool, capacity * sizeof(void*)));
}

void giveSlots(Dpa* array) {
    const ItemPool* pool = array->capacity == 1 ? array->itemPool : nullptr;
    itemGive(pool, array->items, array->capacity * sizeof(void*));
}

bool grow(Dpa* array, uint32_t additional) {
    if (additional > kMostItems - array->capacity) return false;
    const uint32_t capacity = array->capacity + additional;
    const size_t sizeBytes = capacity * sizeof(void*);

    // A pool's item can't be reallocated.
    void** items = nullptr;
    if (array->capacity == 1 && array->itemPool != nullptr) {
        items = static_cast<void**>(std::malloc(sizeBytes));
        if (items == nullptr) return false;
        items[0] = array->items[0];
        giveSlots(array);
    } else {
        items = static_cast<void**>(std::realloc(array->items, sizeBytes));
        if (items == nullptr) return false;
    }
    array->items = items;
    array->capacity = capacity;
    return true;
}

bool makeRoom(Dpa* array) {
    return array->count < array->capacity || grow(array, array->capacity);
}

}  // namespace

Dpa* dpaCreate(uint32_t capacity) {
    return dpaCreateWithPools(capacity, nullptr, nullptr);
}

Dpa* dpaCreateWithPools(uint32_t capacity, const ItemPool* pool, const ItemPool* itemPool) {
    if (capacity == 0) capacity = 1;
    if (capacity > kMostItems) return nullptr;
    auto* array = static_cast<Dpa*>(itemTake(pool, sizeof(Dpa)));
    if (array == nullptr) return nullptr;

    *array = {0, capacity, takeSlots(capacity, itemPool), pool, itemPool};
    if (array->items == nullptr) {
        itemGive(pool, array, sizeof(Dpa));
        return nullptr;
    }
    array->items[0] = nullptr;
    return array;
}

Dpa* dpaDestroy(Dpa* array) {
    if (array == nullptr) return nullptr;
    giveSlots(array);
    itemGive(array->pool, array, sizeof(Dpa));
    return nullptr;
}

bool dpaAppend(Dpa* array, void* value) {
    if (value == nullptr || !makeRoom(array)) return false;
    array->items[array->count++] = value;
    return true;
}

bool dpaReserve(Dpa* array, uint32_t count) {
    if (count <= array->capacity) return true;
    return grow(array, std::max(count - array->capacity, array->capacity));
}

bool dpaAppendAll(Dpa* target, const Dpa* source) {
    if (source == nullptr) return false;
    const uint32_t added = source->count;
    if (added > target->capacity - target->count && !grow(target, added)) return false;
    std::memcpy(target->items + target->count, source->items, added * sizeof(void*));
    target->count += added;
    return true;
}

int32_t dpaIndexOf(const Dpa* array, const void* value) {
    for (uint32_t i = 0; i < array->count; ++i) {
        if (array->items[i] == value) return static_cast<int32_t>(i);
    }
    return ~static_cast<int32_t>(array->count);
}

int32_t dpaSearch(const Dpa* array, const void* key, DpaComparator compare) {
    if (compare == nullptr) compare = compareValues;
    uint32_t low = 0;
    uint32_t high = array->count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const int order = compare(key, array->items[middle]);
        if (order == 0) return static_cast<int32_t>(middle);
        if (order < 0) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return ~static_cast<int32_t>(low);
}

bool dpaInsertSorted(Dpa* array, void* value, DpaComparator compare) {
    if (value == nullptr || !makeRoom(array)) return false;
    if (compare == nullptr) compare = compareValues;

    const int32_t found = dpaSearch(array, value, compare);
    auto place = static_cast<uint32_t>(found < 0 ? ~found : found);
    if (found >= 0) {
        while (place < array->count && compare(value, array->items[place]) >= 0) {
            ++place;
        }
    }
    void** at = array->items + place;
    std::memmove(at + 1, at, (array->count - place) * sizeof(void*));
    *at = value;
    ++array->count;
    return true;
}

int32_t dpaRemoveValue(Dpa* array, const void* value) {
    const int32_t index = dpaIndexOf(array, value);
    if (index < 0) return index;
    void** last = &array->items[--array->count];
    array->items[index] = *last;
    *last = nullptr;
    return index;
}

bool dpaRemoveAt(Dpa* array, uint32_t index) {
    if (index >= array->count) return false;
    void** at = array->items + index;
    std::memmove(at, at + 1, (--array->count - index) * sizeof(void*));
    array->items[array->count] = nullptr;
    return true;
}

int32_t dpaRemoveSorted(Dpa* array, const void* key, DpaComparator compare) {
    const int32_t index = dpaSearch(array, key, compare);
    if (index >= 0) dpaRemoveAt(array, static_cast<uint32_t>(index));
    return index;
}
