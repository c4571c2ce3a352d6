// The block that snapshots are built in. It is reused, so in the steady state taking a snapshot
// allocates nothing. It grows to the requested size, and is halved, once per call, while less than
// half of it is requested.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>

// Allocates the first block. False when memory runs out.
[[nodiscard]] bool snapshotStorageInit();

// Returns the block, of at least `sizeBytes` undefined bytes. Null when memory runs out; the block
// of the last call is then still valid.
[[nodiscard]] uint8_t* snapshotStorage(size_t sizeBytes);

[[nodiscard]] size_t snapshotCapacity();

// Hands the block over, with the snapshot in it, for another one of malloc's, or for none: the next
// call then allocates.
struct SnapshotBlock {
    void* bytes;
    size_t capacityBytes;
};

[[nodiscard]] SnapshotBlock snapshotStorageExchange(SnapshotBlock spare);

void snapshotStorageFree();
