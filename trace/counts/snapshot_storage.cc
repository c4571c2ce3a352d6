#include "trace/counts/snapshot_storage.h"

#include <cstdlib>

namespace {

constexpr size_t kFirstCapacity = 32768;

struct {
    void* block;
    size_t capacity;
} storage;

bool resize(size_t capacity) {
    void* block = std::realloc(storage.block, capacity);
    if (block == nullptr) return false;
    storage = {block, capacity};
    return true;
}

}  // namespace

bool snapshotStorageInit() {
    return resize(kFirstCapacity);
}

uint8_t* snapshotStorage(size_t sizeBytes) {
    if (sizeBytes > storage.capacity) {
        if (!resize(sizeBytes)) return nullptr;
    } else if (sizeBytes < storage.capacity / 2) {
        (void)resize(storage.capacity / 2);  // if it can't shrink, the block is used as it is
    }
    return static_cast<uint8_t*>(storage.block);
}

size_t snapshotStorageCapacity() {
    return storage.capacity;
}

void snapshotStorageFree() {
    std::free(storage.block);
    storage = {};
}
