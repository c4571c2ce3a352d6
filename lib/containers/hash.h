// A hash table with byte strings for keys and pointers for values: each level of a subject list is
// one, and the reliable layer keeps its own.
//
// Chained; the bucket of a key is its hash & mask. The count never exceeds the buckets: an
// insertion that would exceed them doubles them, using the stored hashes and not the keys.
//
// A key is `length` bytes. A length of 0 means terminated text, which is measured without its NUL.
// A hash of 0 means that the hash is to be computed: no key has that hash.
//
// Ownership: a table owns its entries and the keys that it copied. A borrowed key outlives its
// entry. Values belong to the caller; none can be 0. Pools are borrowed and outlive the table.
//
// Threads: no lock; the owner serialises all calls.

#pragma once

#include <cstdint>

#include "lib/containers/chain_cursor.h"
#include "lib/containers/item_pool.h"

struct HashEntry {
    HashEntry* next;
    void* value;
    const void* key;
    uint32_t keyInfo;  // length in the low 31 bits; bit 31: the table owns the key
    uint32_t hash;
};

struct Hash {
    uint32_t bucketCount;  // a power of two
    uint32_t count;
    uint32_t mask;  // bucketCount - 1
    HashEntry** buckets;

    // Constant after creation; null: the heap.
    const ItemPool* tablePool;
    const ItemPool* entryPool;
    const ItemPool* keyPool;     // for keys that fit its items
    const ItemPool* bucketPool;  // for an array of one bucket
};

struct HashIterator {
    ChainCursor<HashEntry> cursor;
    Hash* table;
};

// Item sizes of a table's pools.
constexpr uint32_t kHashTableItemBytes = sizeof(Hash) + kPoolOwnerBytes;
constexpr uint32_t kHashEntryItemBytes = sizeof(HashEntry) + kPoolOwnerBytes;
constexpr uint32_t kHashBucketItemBytes = sizeof(HashEntry*) + kPoolOwnerBytes;

// `buckets` is rounded up to a power of two. Null for 0 buckets, or when memory runs out.
[[nodiscard]] Hash* hashCreate(uint32_t buckets);
[[nodiscard]] Hash* hashCreateWithPools(uint32_t buckets,
                                        const ItemPool* tablePool,
                                        const ItemPool* entryPool,
                                        const ItemPool* keyPool,
                                        const ItemPool* bucketPool);

// Makes the pools that are wanted, null for one that isn't; `keyItemBytes` is the item size of the
// key pool. False if memory runs out; then no pool is made.
[[nodiscard]] bool hashCreatePools(ItemPool** tablePool,
                                   ItemPool** entryPool,
                                   uint32_t keyItemBytes,
                                   ItemPool** keyPool,
                                   ItemPool** bucketPool);

// Null is allowed.
void hashDestroy(Hash* table);

// The value, or null.
[[nodiscard]] void* hashFind(const Hash* table, const void* key, uint32_t length, uint32_t hash);

// Adds or replaces; a value of 0 removes. With `copyKey` the table keeps its own copy of the key,
// else it borrows it; a key that the table owns already stays as it is. False on failure, which
// changes nothing, or where there is nothing to remove.
bool hashPut(
    Hash* table, const void* key, uint32_t length, uint32_t hash, bool copyKey, void* value);

// Halves the buckets while there are at least four for each entry, for tables that were larger
// once. Without memory the table stays as it is. Not allowed during an iteration.
void hashFit(Hash* table);

// The same on any machine; never 0.
[[nodiscard]] uint32_t hashKeyHash(const void* key, uint32_t length);

// Iteration: by ascending bucket, and within a bucket from the head of its chain. Meanwhile entries
// may only be removed, by hashIterRemove.
void hashIterInit(Hash* table, HashIterator* iterator);

// False at the end; outputs are optional.
bool hashIterNext(HashIterator* iterator, const void** key, uint32_t* length, void** value);

// Removes the entry last returned, with its owned key.
void hashIterRemove(HashIterator* iterator);
