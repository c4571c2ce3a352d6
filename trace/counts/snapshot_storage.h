// The block that snapshots are built in. It is reused from one to the next: in the steady state
// taking a snapshot allocates nothing. It grows to the size that is asked for, and falls back by
// halves, one at a time, once less than half of it is wanted.
//
// Threads: under `statsLock`.

#pragma once

#include <cstddef>
#include <cstdint>

// The first block. False when memory runs out.
[[nodiscard]] bool snapshotStorageInit();

// The block, of at least `sizeBytes`; its bytes are undefined. Null when memory runs out; then the
// block of the last call stays good.
[[nodiscard]] uint8_t* snapshotStorage(size_t sizeBytes);

[[nodiscard]] size_t snapshotStorageCapacity();

void snapshotStorageFree();
