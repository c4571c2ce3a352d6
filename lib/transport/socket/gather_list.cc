#include "lib/transport/socket/gather_list.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

bool resize(GatherList* list, uint32_t capacity) {
    void* const block = std::realloc(list->entries, size_t{capacity} * sizeof(iovec));
    if (block == nullptr) return false;
    list->entries = static_cast<iovec*>(block);
    list->capacity = capacity;
    return true;
}

}  // namespace

bool gatherInit(GatherList* list, uint32_t capacity) {
    *list = {};
    return resize(list, std::max(capacity, 1u));
}

void gatherFree(GatherList* list) {
    std::free(list->entries);
    *list = {};
}

bool gatherAdd(GatherList* list, const void* bytes, uint32_t length) {
    if (length > UINT32_MAX - list->total) return false;
    if (list->count == list->capacity) {
        if (list->capacity > UINT32_MAX / 2 || !resize(list, list->capacity * 2)) return false;
    }
    list->entries[list->count++] = {.iov_base = const_cast<void*>(bytes), .iov_len = length};
    list->total += length;
    return true;
}

void gatherDropEntries(GatherList* list, uint32_t count) {
    count = std::min(count, list->count);
    for (uint32_t i = 0; i < count; ++i)
        list->total -= static_cast<uint32_t>(list->entries[i].iov_len);
    list->count -= count;
    std::memmove(list->entries, list->entries + count, list->count * sizeof(iovec));
}

void gatherDropBytes(GatherList* list, uint32_t bytes) {
    uint32_t whole = 0;
    while (whole < list->count && list->entries[whole].iov_len <= bytes)
        bytes -= static_cast<uint32_t>(list->entries[whole++].iov_len);
    gatherDropEntries(list, whole);
    if (list->count == 0) return;
    iovec& first = list->entries[0];
    first.iov_base = static_cast<char*>(first.iov_base) + bytes;
    first.iov_len -= bytes;
    list->total -= bytes;
}

void gatherClear(GatherList* list) {
    list->count = 0;
    list->total = 0;
}
