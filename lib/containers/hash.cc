#include "lib/containers/hash.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kMostBuckets = 1u << 31;
constexpr uint32_t kKeyOwned = 1u << 31;
constexpr uint32_t kKeyLengthMax = kKeyOwned - 1;
constexpr uint32_t kHashOfNothing = 0xffffffff;
constexpr uint32_t kHashFactor = 39;

// A key with what the caller may have left out.
struct HashKey {
    const void* bytes;
    uint32_t length;
    uint32_t hash;
};

// False for a key that is too long to be held.
bool completeKey(HashKey& key) {
    if (key.length == 0) {
        const size_t measured = std::strlen(static_cast<const char*>(key.bytes));
        if (measured > kKeyLengthMax) return false;
        key.length = static_cast<uint32_t>(measured);
    }
    if (key.length > kKeyLengthMax) return false;
    if (key.hash == 0) key.hash = hashKeyHash(key.bytes, key.length);
    return true;
}

uint32_t keyLength(const HashEntry* entry) {
    return entry->keyInfo & kKeyLengthMax;
}

// The stored hash isn't compared: callers may bring hashes of their own.
bool matches(const HashEntry* entry, const HashKey& key) {
    return keyLength(entry) == key.length && std::memcmp(entry->key, key.bytes, key.length) == 0;
}

HashEntry** findLink(const Hash* table, const HashKey& key) {
    HashEntry** link = &table->buckets[key.hash & table->mask];
    while (*link != nullptr && !matches(*link, key)) {
        link = &(*link)->next;
    }
    return link;
}

// An empty key takes a byte, so that having it differs from running out of memory.
size_t keyBytes(uint32_t length) {
    return length == 0 ? 1 : length;
}

const void* copyOf(const Hash* table, const HashKey& key) {
    void* copy = itemTake(table->keyPool, keyBytes(key.length));
    if (copy != nullptr) std::memcpy(copy, key.bytes, key.length);
    return copy;
}

void giveEntry(const Hash* table, HashEntry* entry) {
    if ((entry->keyInfo & kKeyOwned) != 0) {
        itemGive(table->keyPool, const_cast<void*>(entry->key), keyBytes(keyLength(entry)));
    }
    itemGive(table->entryPool, entry, sizeof(HashEntry));
}

HashEntry** takeBuckets(uint32_t bucketCount, const ItemPool* bucketPool) {
    if (bucketCount > 1) {
        return static_cast<HashEntry**>(std::calloc(bucketCount, sizeof(HashEntry*)));
    }
    auto** bucket = static_cast<HashEntry**>(itemTake(bucketPool, sizeof(HashEntry*)));
    if (bucket != nullptr) *bucket = nullptr;
    return bucket;
}

void giveBuckets(Hash* table) {
    const ItemPool* pool = table->bucketCount == 1 ? table->bucketPool : nullptr;
    itemGive(pool, table->buckets, table->bucketCount * sizeof(HashEntry*));
}

void push(Hash* table, HashEntry* entry) {
    HashEntry** head = &table->buckets[entry->hash & table->mask];
    entry->next = *head;
    *head = entry;
}

bool resize(Hash* table, uint32_t bucketCount) {
    Hash resized = *table;
    resized.bucketCount = bucketCount;
    resized.mask = bucketCount - 1;
    resized.buckets = takeBuckets(bucketCount, table->bucketPool);
    if (resized.buckets == nullptr) return false;

    for (uint32_t i = 0; i < table->bucketCount; ++i) {
        for (HashEntry* entry = table->buckets[i]; entry != nullptr;) {
            HashEntry* next = entry->next;
            push(&resized, entry);
            entry = next;
        }
    }
    giveBuckets(table);
    *table = resized;
    return true;
}

bool grow(Hash* table) {
    return table->bucketCount != kMostBuckets && resize(table, table->bucketCount * 2);
}

// Gives the entry its key: a copy, or the caller's bytes.
bool setKey(const Hash* table, HashEntry* entry, const HashKey& key, bool copyKey) {
    const void* bytes = copyKey ? copyOf(table, key) : key.bytes;
    if (bytes == nullptr) return false;
    entry->key = bytes;
    entry->keyInfo = key.length | (copyKey ? kKeyOwned : 0);
    return true;
}

bool add(Hash* table, const HashKey& key, bool copyKey, void* value) {
    if (table->count == table->bucketCount && !grow(table)) return false;
    auto* entry = static_cast<HashEntry*>(itemTake(table->entryPool, sizeof(HashEntry)));
    if (entry == nullptr) return false;
    if (!setKey(table, entry, key, copyKey)) {
        itemGive(table->entryPool, entry, sizeof(HashEntry));
        return false;
    }
    entry->hash = key.hash;
    entry->value = value;
    push(table, entry);
    ++table->count;
    return true;
}

bool replace(const Hash* table, HashEntry* entry, const HashKey& key, bool copyKey, void* value) {
    const bool owned = (entry->keyInfo & kKeyOwned) != 0;
    if (!owned && !setKey(table, entry, key, copyKey)) return false;
    entry->value = value;
    return true;
}

}  // namespace

Hash* hashCreate(uint32_t buckets) {
    return hashCreateWithPools(buckets, nullptr, nullptr, nullptr, nullptr);
}

Hash* hashCreateWithPools(uint32_t buckets,
                          const ItemPool* tablePool,
                          const ItemPool* entryPool,
                          const ItemPool* keyPool,
                          const ItemPool* bucketPool) {
    if (buckets == 0 || buckets > kMostBuckets) return nullptr;
    auto* table = static_cast<Hash*>(itemTake(tablePool, sizeof(Hash)));
    if (table == nullptr) return nullptr;

    const uint32_t bucketCount = std::bit_ceil(buckets);
    *table = {.bucketCount = bucketCount,
              .count = 0,
              .mask = bucketCount - 1,
              .buckets = takeBuckets(bucketCount, bucketPool),
              .tablePool = tablePool,
              .entryPool = entryPool,
              .keyPool = keyPool,
              .bucketPool = bucketPool};
    if (table->buckets != nullptr) return table;
    itemGive(tablePool, table, sizeof(Hash));
    return nullptr;
}

bool hashCreatePools(ItemPool** tablePool,
                     ItemPool** entryPool,
                     uint32_t keyItemBytes,
                     ItemPool** keyPool,
                     ItemPool** bucketPool) {
    const PoolRequest requests[] = {
        {tablePool, kHashTableItemBytes},
        {entryPool, kHashEntryItemBytes},
        {keyPool, keyItemBytes},
        {bucketPool, kHashBucketItemBytes},
    };
    return poolsMake(requests);
}

void hashDestroy(Hash* table) {
    if (table == nullptr) return;
    for (uint32_t i = 0; i < table->bucketCount; ++i) {
        for (HashEntry* entry = table->buckets[i]; entry != nullptr;) {
            HashEntry* next = entry->next;
            giveEntry(table, entry);
            entry = next;
        }
    }
    giveBuckets(table);
    itemGive(table->tablePool, table, sizeof(Hash));
}

void* hashFind(const Hash* table, const void* key, uint32_t length, uint32_t hash) {
    HashKey sought = {key, length, hash};
    if (!completeKey(sought)) return nullptr;
    const HashEntry* entry = *findLink(table, sought);
    return entry == nullptr ? nullptr : entry->value;
}

bool hashPut(
    Hash* table, const void* key, uint32_t length, uint32_t hash, bool copyKey, void* value) {
    HashKey sought = {key, length, hash};
    if (!completeKey(sought)) return false;
    HashEntry** link = findLink(table, sought);
    HashEntry* entry = *link;
    if (value != nullptr) {
        return entry == nullptr ? add(table, sought, copyKey, value)
                                : replace(table, entry, sought, copyKey, value);
    }

    if (entry == nullptr) return false;
    *link = entry->next;
    giveEntry(table, entry);
    --table->count;
    return true;
}

void hashFit(Hash* table) {
    uint32_t wanted = table->bucketCount;
    while (wanted > 1 && table->count <= wanted / 4) {
        wanted /= 2;
    }
    if (wanted != table->bucketCount) (void)resize(table, wanted);
}

// Big-endian words, so that every machine has the same hashes.
uint32_t hashKeyHash(const void* key, uint32_t length) {
    const auto* at = static_cast<const uint8_t*>(key);
    uint32_t hash = 0;
    for (uint32_t words = length / 2; words > 0; --words) {
        hash = hash * kHashFactor + loadBe16At(at);
        at += 2;
    }
    if (length % 2 != 0) hash = hash * kHashFactor + *at;
    return hash == 0 ? kHashOfNothing : hash;
}

void hashIterInit(Hash* table, HashIterator* iterator) {
    *iterator = {.cursor = {}, .table = table};
}

bool hashIterNext(HashIterator* iterator, const void** key, uint32_t* length, void** value) {
    const Hash* table = iterator->table;
    const HashEntry* entry = chainNext(iterator->cursor, table->buckets, table->mask);
    if (entry == nullptr) return false;
    if (key != nullptr) *key = entry->key;
    if (length != nullptr) *length = keyLength(entry);
    if (value != nullptr) *value = entry->value;
    return true;
}

void hashIterRemove(HashIterator* iterator) {
    HashEntry* entry = chainTakeOut(iterator->cursor);
    if (entry == nullptr) return;
    giveEntry(iterator->table, entry);
    --iterator->table->count;
}
