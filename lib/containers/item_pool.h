// A memory pool as containers see it. A container that is given pools takes its small parts from
// them, and the rest from the heap. The pools themselves are a floor above (lib/msg/pool.h).
//
// Ownership: a container borrows its pools, which outlive it. What was taken from a pool is given
// back to that pool.
//
// Failure: a take returns null when memory runs out.
//
// Threads: a pool is as safe as its maker says; containers have no locks.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

struct PoolOps {
    void* (*take)(void* pool);
    void (*give)(void* pool, void* item);
};

// Items of one size.
struct ItemPool {
    const PoolOps* ops;
    void* pool;             // what `ops` is called with
    uint32_t payloadBytes;  // what an item holds for its user
};

// Makes pools for the containers that bring pools of their own. Empty until the pools' floor fills
// it, once, before other threads run; until then no pool can be made.
struct PoolMakerOps {
    ItemPool* (*create)(uint32_t itemBytes, uint32_t itemsPerBlock);
    void (*destroy)(ItemPool* pool);
};

extern PoolMakerOps poolMakerOps;

// An item is this much larger than its payload: the pool keeps a word of its own there.
constexpr uint32_t kPoolOwnerBytes = 8;

struct PoolRequest {
    ItemPool** out;  // null: not wanted
    uint32_t itemBytes;
};

// Makes all the pools that are wanted, of 100 items a block, or none and writes no output.
[[nodiscard]] bool poolsMake(std::span<const PoolRequest> requests);

// Destroys a pool of poolsMake. Null is allowed.
void poolUnmake(ItemPool* pool);

[[nodiscard]] inline bool poolServes(const ItemPool* pool, size_t sizeBytes) {
    return pool != nullptr && sizeBytes <= pool->payloadBytes;
}

// From the pool if its items are large enough, else from the heap. The bytes are not zeroed.
[[nodiscard]] inline void* itemTake(const ItemPool* pool, size_t sizeBytes) {
    return poolServes(pool, sizeBytes) ? pool->ops->take(pool->pool) : std::malloc(sizeBytes);
}

// With the same pool and size as at the take: they decide where the item came from.
inline void itemGive(const ItemPool* pool, void* item, size_t sizeBytes) {
    if (poolServes(pool, sizeBytes)) {
        if (item != nullptr) pool->ops->give(pool->pool, item);
    } else {
        std::free(item);
    }
}
