// Dictionaries with integer keys and pointer values: Dict32 and Dict64. The statistics consult them
// on every captured packet, and keep one for each subject on the bus.
//
// A chained hash table: the bucket of a key is its low 32 bits & (bucketCount - 1), unmixed. The
// count never exceeds the buckets: an insertion that would exceed them doubles them first. Two
// things keep it cheap whatever the keys:
//
// - While it holds few entries there is no bucket array; all entries hang in one chain, in the
//   order that the buckets would give. A table of 256 buckets with one entry is this struct and the
//   entry, and iterating it touches only these.
// - Keys of equal low bits, such as addresses without a port, make one long chain. The first
//   insertion that walks such a chain builds an index beside the chains, and look-ups use that from
//   then on. Without memory for it, look-ups walk the chains.
//
// Ownership: a table owns its entries; values belong to the caller and are never touched.
//
// Failure: kStatusInvalidArgument (no table), kStatusNoMemory (the table keeps its entries),
// kStatusNotFound. Outputs are optional and written only on success.
//
// Threads: no lock; the owner serialises changes. Look-ups change no state.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/containers/chain_cursor.h"
#include "lib/containers/probe_index.h"

template <typename Key>
struct DictEntry {
    DictEntry* next;
    DictEntry** link;  // what points here, a bucket or an entry: a removal needs no walk
    void* value;
    Key key;
};

template <typename Key>
struct Dict {
    uint32_t bucketCount;  // a power of two; what the table counts as its size
    uint32_t count;        // entries
    uint32_t headMask;     // chains in `heads` - 1: bucketCount - 1, or 0 while there is one chain

    uint32_t indexRetryCount;  // no index is built below this count: memory failed before
    ProbeIndex index;          // empty unless a chain is or was long

    DictEntry<Key>** heads;  // the bucket array, or &onlyHead
    DictEntry<Key>* onlyHead;
};

template <typename Key>
struct DictIterator {
    ChainCursor<DictEntry<Key>> cursor;
    Dict<Key>* dict;
};

using Dict32 = Dict<uint32_t>;
using Dict64 = Dict<uint64_t>;
using Dict32Iterator = DictIterator<uint32_t>;
using Dict64Iterator = DictIterator<uint64_t>;

static_assert(sizeof(Dict64) <= 64);

// `buckets` is rounded up to a power of two. Null for 0 buckets, or when memory runs out.
[[nodiscard]] Dict32* dict32Create(uint32_t buckets);
[[nodiscard]] Dict64* dict64Create(uint32_t buckets);

// Null is allowed.
void dict32Destroy(Dict32* dict);
void dict64Destroy(Dict64* dict);

// A key that is present: kStatusNotPermitted and nothing changes, or the value is replaced.
[[nodiscard]] pelmoStatus dict32Insert(Dict32* dict, uint32_t key, void* value);
[[nodiscard]] pelmoStatus dict64Insert(Dict64* dict, uint64_t key, void* value);

// kStatusInvalidArgument also where the key isn't there.
pelmoStatus dict32Remove(Dict32* dict, uint32_t key, void** value);
pelmoStatus dict64Remove(Dict64* dict, uint64_t key, void** value);

// Iteration: by ascending bucket, and within a bucket the newest first; each growth reverses the
// order within buckets. Meanwhile entries may only be removed, by IterRemove.
void dict32IterInit(Dict32* dict, Dict32Iterator* iterator);
void dict64IterInit(Dict64* dict, Dict64Iterator* iterator);

// False at the end.
bool dict32IterNext(Dict32Iterator* iterator, uint32_t* key, void** value);
bool dict64IterNext(Dict64Iterator* iterator, uint64_t* key, void** value);

// Removes the entry last returned.
void dict32IterRemove(Dict32Iterator* iterator);
void dict64IterRemove(Dict64Iterator* iterator);

template <typename Key>
[[nodiscard]] inline DictEntry<Key>* dictLookUp(const Dict<Key>* dict, Key key) {
    using Entry = DictEntry<Key>;
    if (dict->index.slots != nullptr) {
        const auto matches = [key](void* entry) { return static_cast<Entry*>(entry)->key == key; };
        return static_cast<Entry*>(probeFind(dict->index, probeHashKey(key), matches));
    }
    Entry* entry = dict->heads[static_cast<uint32_t>(key) & dict->headMask];
    while (entry != nullptr && entry->key != key) {
        entry = entry->next;
    }
    return entry;
}

template <typename Key>
[[nodiscard]] inline pelmoStatus dictFind(const Dict<Key>* dict, Key key, void** value) {
    if (dict == nullptr) return kStatusInvalidArgument;
    const DictEntry<Key>* entry = dictLookUp(dict, key);
    if (entry == nullptr) return kStatusNotFound;
    if (value != nullptr) *value = entry->value;
    return kStatusSuccess;
}

[[nodiscard]] inline pelmoStatus dict32Find(const Dict32* dict, uint32_t key, void** value) {
    return dictFind(dict, key, value);
}

[[nodiscard]] inline pelmoStatus dict64Find(const Dict64* dict, uint64_t key, void** value) {
    return dictFind(dict, key, value);
}

[[nodiscard]] inline uint32_t dict32Count(const Dict32* dict) {
    return dict->count;
}

[[nodiscard]] inline uint32_t dict64Count(const Dict64* dict) {
    return dict->count;
}
