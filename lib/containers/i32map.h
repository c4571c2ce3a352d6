// A map from 32-bit keys to 32-bit values that is emptied in constant time: the field index of a
// message, which is reset with every message that it serves.
//
// A chained hash table: the bucket of a key is key & mask, without mixing. Keys are field ids of 16
// bits, which senders count up, so that they spread evenly; ids chosen to collide make chains of
// 256 at most. An insertion that finds no stale node, with as many current ones as buckets, doubles
// the buckets. A node belongs to the map only while its generation is the map's. Emptying raises
// that, and leaves the nodes where they are as empty slots, to be overwritten in place. Each chain
// holds current nodes before stale ones.
//
// Ownership: a map owns its nodes; pools are borrowed and outlive it.
//
// Failure: kStatusInvalidArgument (no map), kStatusNoMemory (the map keeps what it holds),
// kStatusNotFound. Outputs are optional and written only on success.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/containers/dpa.h"
#include "lib/containers/item_pool.h"

struct I32MapNode {
    I32MapNode* next;
    uint32_t value;
    uint32_t key;
    uint32_t generation;
};

struct I32Map {
    uint32_t bucketCount;  // a power of two
    uint32_t count;        // current nodes
    uint32_t mask;         // bucketCount - 1
    uint32_t generation;
    I32MapNode** buckets;
    Dpa* spare;  // unused nodes; null until first needed

    // Constant after creation; null: the heap.
    const ItemPool* mapPool;
    const ItemPool* nodePool;
    const ItemPool* bucketPool;  // for an array of one bucket
};

// Makes the pools that are wanted, null for one that isn't. False if memory runs out; then no pool
// is made.
[[nodiscard]] bool i32mapCreatePools(ItemPool** mapPool,
                                     ItemPool** nodePool,
                                     ItemPool** bucketPool);

// `buckets` is rounded up to a power of two. Null for 0 buckets, or when memory runs out.
[[nodiscard]] I32Map* i32mapCreate(uint32_t buckets,
                                   const ItemPool* mapPool = nullptr,
                                   const ItemPool* nodePool = nullptr,
                                   const ItemPool* bucketPool = nullptr);

// Null is allowed.
void i32mapDestroy(I32Map* map);

pelmoStatus i32mapClear(I32Map* map);

[[nodiscard]] pelmoStatus i32mapFind(const I32Map* map, uint32_t key, uint32_t* value);

// Adds or replaces.
[[nodiscard]] pelmoStatus i32mapSet(I32Map* map, uint32_t key, uint32_t value);

// Removes the key if it is there.
void i32mapRemove(I32Map* map, uint32_t key);
