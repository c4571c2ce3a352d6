#include "trace/counts/snapshot_storage.h"

#include <cstdlib>
#include <utility>

namespace {

constexpr size_t kFirstCapacity = 32768;

SnapshotBlock storage;

bool resize(size_t capacity) {
    void* block = std::realloc(storage.bytes, capacity);
    if (block == nullptr) return false;
    storage = {block, capacity};
    return true;
}

}  // namespace

bool snapshotStorageInit() {
    return resize(kFirstCapacity);
}

uint8_t* snapshotStorage(size_t sizeBytes) {
    if (sizeBytes > storage.capacityBytes) {
        if (!resize(sizeBytes)) return nullptr;
    } else if (sizeBytes < storage.capacityBytes / 2) {
        (void)resize(storage.capacityBytes / 2);  // if it can't shrink, the block is used as it is
    }
    return static_cast<uint8_t*>(storage.bytes);
}

size_t snapshotCapacity() {
    return storage.capacityBytes;
}

SnapshotBlock snapshotStorageExchange(SnapshotBlock spare) {
    return std::exchange(storage, spare);
}

void snapshotStorageFree() {
    std::free(storage.bytes);
    storage = {};
}
