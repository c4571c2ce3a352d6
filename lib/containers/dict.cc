#include "lib/containers/dict.h"

#include <bit>
#include <cstdlib>

namespace {

constexpr uint32_t kMostBuckets = 1u << 31;

// Up to here entries hang in one chain.
constexpr uint32_t kSmallCount = 4;

// A walk past more entries than this asks for an index.
constexpr uint32_t kLongChain = 4;

template <typename Key>
uint32_t bucketOf(const Dict<Key>* dict, Key key) {
    return static_cast<uint32_t>(key) & (dict->bucketCount - 1);
}

template <typename Key>
bool isSmall(const Dict<Key>* dict) {
    return dict->heads == &dict->onlyHead;
}

template <typename Key>
Dict<Key>* create(uint32_t buckets) {
    if (buckets == 0 || buckets > kMostBuckets) return nullptr;
    auto* dict = static_cast<Dict<Key>*>(std::calloc(1, sizeof(Dict<Key>)));
    if (dict == nullptr) return nullptr;
    dict->bucketCount = std::bit_ceil(buckets);
    dict->heads = &dict->onlyHead;
    return dict;
}

template <typename Key>
void destroy(Dict<Key>* dict) {
    if (dict == nullptr) return;
    for (uint32_t i = 0; i <= dict->headMask; ++i) {
        for (DictEntry<Key>* entry = dict->heads[i]; entry != nullptr;) {
            DictEntry<Key>* next = entry->next;
            std::free(entry);
            entry = next;
        }
    }
    if (!isSmall(dict)) std::free(dict->heads);
    probeClear(dict->index);
    std::free(dict);
}

// Where a new entry of this bucket goes: the head of its bucket. In the one chain of a small table
// that is after all entries of lower buckets.
template <typename Key>
DictEntry<Key>** placeFor(Dict<Key>* dict, Key key) {
    const uint32_t bucket = bucketOf(dict, key);
    if (!isSmall(dict)) return &dict->heads[bucket];
    DictEntry<Key>** link = &dict->onlyHead;
    while (*link != nullptr && bucketOf(dict, (*link)->key) < bucket) {
        link = &(*link)->next;
    }
    return link;
}

template <typename Key>
void push(Dict<Key>* dict, DictEntry<Key>* entry) {
    DictEntry<Key>** link = placeFor(dict, entry->key);
    entry->next = *link;
    entry->link = link;
    if (entry->next != nullptr) entry->next->link = &entry->next;
    *link = entry;
}

template <typename Key>
DictEntry<Key>** allocateHeads(uint32_t bucketCount) {
    return static_cast<DictEntry<Key>**>(std::calloc(bucketCount, sizeof(DictEntry<Key>*)));
}

// Takes the entries from the old chains, by ascending bucket and from each head, and pushes them:
// so the chains come out reversed.
template <typename Key>
void repush(Dict<Key>* dict, DictEntry<Key>* const* oldHeads, uint32_t oldHeadMask) {
    for (uint32_t i = 0; i <= oldHeadMask; ++i) {
        for (DictEntry<Key>* entry = oldHeads[i]; entry != nullptr;) {
            DictEntry<Key>* next = entry->next;
            push(dict, entry);
            entry = next;
        }
    }
}

// Doubles the buckets. A table that stays small needs no array for that.
template <typename Key>
pelmoStatus grow(Dict<Key>* dict) {
    if (dict->bucketCount == kMostBuckets) return kStatusNoMemory;
    const uint32_t bucketCount = dict->bucketCount * 2;
    if (dict->count < kSmallCount) {
        DictEntry<Key>* chain = dict->onlyHead;
        dict->bucketCount = bucketCount;
        dict->onlyHead = nullptr;
        repush(dict, &chain, 0);
        return kStatusSuccess;
    }

    DictEntry<Key>** heads = allocateHeads<Key>(bucketCount);
    if (heads == nullptr) return kStatusNoMemory;
    const bool wasSmall = isSmall(dict);
    DictEntry<Key>** oldHeads = dict->heads;
    const uint32_t oldHeadMask = dict->headMask;
    dict->bucketCount = bucketCount;
    dict->headMask = bucketCount - 1;
    dict->heads = heads;
    repush(dict, oldHeads, oldHeadMask);
    if (!wasSmall) std::free(oldHeads);
    return kStatusSuccess;
}

// Gives a small table its bucket array. The chain lies in the order of the buckets already, and
// each keeps its own.
template <typename Key>
pelmoStatus spread(Dict<Key>* dict) {
    DictEntry<Key>** heads = allocateHeads<Key>(dict->bucketCount);
    if (heads == nullptr) return kStatusNoMemory;
    DictEntry<Key>** link = nullptr;
    uint32_t bucket = 0;
    for (DictEntry<Key>* entry = dict->onlyHead; entry != nullptr;) {
        DictEntry<Key>* next = entry->next;
        if (link == nullptr || bucketOf(dict, entry->key) != bucket) {
            bucket = bucketOf(dict, entry->key);
            link = &heads[bucket];
        }
        *link = entry;
        entry->link = link;
        entry->next = nullptr;
        link = &entry->next;
        entry = next;
    }
    dict->headMask = dict->bucketCount - 1;
    dict->heads = heads;
    return kStatusSuccess;
}

template <typename Key>
pelmoStatus makeRoom(Dict<Key>* dict) {
    if (dict->count == dict->bucketCount) return grow(dict);
    if (isSmall(dict) && dict->count == kSmallCount) return spread(dict);
    return kStatusSuccess;
}

// Without an index the chains serve. The next try waits until the table has doubled: it walks every
// entry, and memory that fails now will fail at the next packet too.
template <typename Key>
void dropIndex(Dict<Key>* dict) {
    probeClear(dict->index);
    dict->indexRetryCount = dict->count > UINT32_MAX / 2 ? UINT32_MAX : dict->count * 2;
}

template <typename Key>
uint32_t hashOf(const void* entry) {
    return probeHashKey(static_cast<const DictEntry<Key>*>(entry)->key);
}

template <typename Key>
void buildIndex(Dict<Key>* dict) {
    if (!probeReserve(dict->index, dict->count, hashOf<Key>)) return dropIndex(dict);
    for (uint32_t i = 0; i <= dict->headMask; ++i) {
        for (DictEntry<Key>* entry = dict->heads[i]; entry != nullptr; entry = entry->next) {
            if (!probeInsert(dict->index, entry, hashOf<Key>)) return dropIndex(dict);
        }
    }
}

template <typename Key>
bool passesLongChain(const Dict<Key>* dict, Key key) {
    uint32_t steps = 0;
    const DictEntry<Key>* entry = dict->heads[static_cast<uint32_t>(key) & dict->headMask];
    while (entry != nullptr && steps <= kLongChain) {
        entry = entry->next;
        ++steps;
    }
    return steps > kLongChain;
}

template <typename Key>
void indexNew(Dict<Key>* dict, DictEntry<Key>* entry) {
    if (dict->index.slots != nullptr) {
        if (!probeInsert(dict->index, entry, hashOf<Key>)) dropIndex(dict);
    } else if (dict->count >= dict->indexRetryCount && passesLongChain(dict, entry->key)) {
        buildIndex(dict);
    }
}

template <typename Key>
pelmoStatus insertNew(Dict<Key>* dict, Key key, void* value) {
    const pelmoStatus status = makeRoom(dict);
    if (status != kStatusSuccess) return status;
    auto* entry = static_cast<DictEntry<Key>*>(std::malloc(sizeof(DictEntry<Key>)));
    if (entry == nullptr) return kStatusNoMemory;

    entry->value = value;
    entry->key = key;
    push(dict, entry);
    ++dict->count;
    indexNew(dict, entry);
    return kStatusSuccess;
}

// For an entry that is out of its chain.
template <typename Key>
void release(Dict<Key>* dict, DictEntry<Key>* entry) {
    if (entry->next != nullptr) entry->next->link = entry->link;
    if (dict->index.slots != nullptr) probeRemove(dict->index, entry, hashOf<Key>);
    --dict->count;
    std::free(entry);
}

template <typename Key>
pelmoStatus remove(Dict<Key>* dict, Key key, void** value) {
    if (dict == nullptr) return kStatusInvalidArgument;
    DictEntry<Key>* entry = dictLookUp(dict, key);
    if (entry == nullptr) return kStatusInvalidArgument;
    if (value != nullptr) *value = entry->value;

    *entry->link = entry->next;
    release(dict, entry);
    return kStatusSuccess;
}

template <typename Key>
bool iterNext(DictIterator<Key>* iterator, Key* key, void** value) {
    const Dict<Key>* dict = iterator->dict;
    const DictEntry<Key>* entry = chainNext(iterator->cursor, dict->heads, dict->headMask);
    if (entry == nullptr) return false;
    if (key != nullptr) *key = entry->key;
    if (value != nullptr) *value = entry->value;
    return true;
}

template <typename Key>
void iterRemove(DictIterator<Key>* iterator) {
    if (DictEntry<Key>* entry = chainTakeOut(iterator->cursor)) release(iterator->dict, entry);
}

}  // namespace

Dict32* dict32Create(uint32_t buckets) {
    return create<uint32_t>(buckets);
}

Dict64* dict64Create(uint32_t buckets) {
    return create<uint64_t>(buckets);
}

void dict32Destroy(Dict32* dict) {
    destroy(dict);
}

void dict64Destroy(Dict64* dict) {
    destroy(dict);
}

pelmoStatus dict32Insert(Dict32* dict, uint32_t key, void* value) {
    if (dict == nullptr) return kStatusInvalidArgument;
    if (dictLookUp(dict, key) != nullptr) return kStatusNotPermitted;
    return insertNew(dict, key, value);
}

pelmoStatus dict64Insert(Dict64* dict, uint64_t key, void* value) {
    if (dict == nullptr) return kStatusInvalidArgument;
    if (DictEntry<uint64_t>* present = dictLookUp(dict, key)) {
        present->value = value;
        return kStatusSuccess;
    }
    return insertNew(dict, key, value);
}

pelmoStatus dict32Remove(Dict32* dict, uint32_t key, void** value) {
    return remove(dict, key, value);
}

pelmoStatus dict64Remove(Dict64* dict, uint64_t key, void** value) {
    return remove(dict, key, value);
}

void dict32IterInit(Dict32* dict, Dict32Iterator* iterator) {
    *iterator = {.cursor = {}, .dict = dict};
}

void dict64IterInit(Dict64* dict, Dict64Iterator* iterator) {
    *iterator = {.cursor = {}, .dict = dict};
}

bool dict32IterNext(Dict32Iterator* iterator, uint32_t* key, void** value) {
    return iterNext(iterator, key, value);
}

bool dict64IterNext(Dict64Iterator* iterator, uint64_t* key, void** value) {
    return iterNext(iterator, key, value);
}

void dict32IterRemove(Dict32Iterator* iterator) {
    iterRemove(iterator);
}

void dict64IterRemove(Dict64Iterator* iterator) {
    iterRemove(iterator);
}
