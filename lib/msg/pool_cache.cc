// Takes and gives, and the thread caches that spare most of them the pool's lock.
//
// The chunk that a thread gave last is the first that it takes again. Given chunks return to their
// blocks 256 at a time, so that a thread that only gives, because it releases what others made,
// doesn't accumulate them. Chunks taken in a batch stay with the thread until it ends.

#include <cstdlib>

#include "lib/msg/pool_internal.h"

namespace {

// The most chunks in all give lists of a thread together.
constexpr uint32_t kMostGiven = 256;

constexpr uint32_t kListBuckets = 128;

struct ThreadCache {
    // Both map a pool's id to a Dpa of chunks.
    Dict32* takeLists;
    Dict32* giveLists;

    uint32_t seenGeneration;  // the manager's, when dead pools were last looked for
    uint32_t giveCount;       // chunks in all give lists
};

// The same pointer as under the manager's key. The key releases the cache at the thread's end; this
// variable spares each take and give the look-up.
constinit thread_local ThreadCache* threadCache = nullptr;

inline Dpa* findList(const Dict32* lists, const ChunkPool* pool) {
    void* list = nullptr;
    return dict32Find(lists, pool->id, &list) == kStatusSuccess ? static_cast<Dpa*>(list) : nullptr;
}

// Makes a list with room for a batch; null when memory runs out. Not inlined, because it is rare
// and would slow the fast path.
[[gnu::noinline]] Dpa* makeList(Dict32* lists, const ChunkPool* pool) {
    Dpa* list = dpaCreate(pool->refreshCount);
    if (list == nullptr) return nullptr;
    if (dict32Insert(lists, pool->id, list) != kStatusSuccess) return dpaDestroy(list);
    return list;
}

enum class Ending : bool { kNo, kYes };

// Returns chunks to their pools if `putBack` is set. Lists of dead pools are dropped, since their
// chunks were freed with the pools.
void flushLists(Dict32* lists, bool putBack, Ending ending) {
    Dict32Iterator iterator;
    dict32IterInit(lists, &iterator);
    uint32_t id = 0;
    void* value = nullptr;
    while (dict32IterNext(&iterator, &id, &value)) {
        auto* list = static_cast<Dpa*>(value);
        ChunkPool* pool = poolRetain(id);
        if (pool != nullptr && putBack) poolPutBack(pool, list);
        if (pool == nullptr || ending == Ending::kYes) {
            dict32IterRemove(&iterator);
            dpaDestroy(list);
        }
        if (pool != nullptr) poolRelease(pool);
    }
}

uint32_t generationNow() {
    const LockGuard guard(poolManager.lock);
    return poolManager.generation;
}

[[gnu::noinline]] void flush(ThreadCache* cache, Ending ending) {
    flushLists(cache->giveLists, true, ending);
    cache->giveCount = 0;
    const uint32_t generation = generationNow();
    if (ending == Ending::kNo && generation == cache->seenGeneration) return;
    cache->seenGeneration = generation;
    flushLists(cache->takeLists, ending == Ending::kYes, ending);
}

void freeCache(ThreadCache* cache) {
    dict32Destroy(cache->takeLists);
    dict32Destroy(cache->giveLists);
    std::free(cache);
}

ThreadCache* makeCache() {
    auto* cache = static_cast<ThreadCache*>(std::malloc(sizeof(ThreadCache)));
    if (cache == nullptr) return nullptr;
    *cache = {.takeLists = dict32Create(kListBuckets),
              .giveLists = dict32Create(kListBuckets),
              .seenGeneration = generationNow(),
              .giveCount = 0};
    if (cache->takeLists != nullptr && cache->giveLists != nullptr) return cache;
    freeCache(cache);
    return nullptr;
}

[[gnu::noinline]] void* takeFromBatch(ThreadCache* cache, ChunkPool* pool) {
    Dpa* list = findList(cache->takeLists, pool);
    if (list == nullptr) list = makeList(cache->takeLists, pool);
    if (list == nullptr) return nullptr;
    if (list->count == 0) poolRefill(pool, list);
    return list->count != 0 ? list->items[--list->count] : nullptr;
}

void* takeCached(ThreadCache* cache, ChunkPool* pool) {
    if (cache->giveCount != 0) {
        Dpa* list = findList(cache->giveLists, pool);
        if (list != nullptr && list->count != 0) {
            --cache->giveCount;
            return list->items[--list->count];
        }
    }
    return takeFromBatch(cache, pool);
}

// Returns a give list with room for one more chunk. A list that can't grow is flushed; null when
// memory runs out for a thread's first list.
[[gnu::noinline]] Dpa* makeRoom(ThreadCache* cache, const ChunkPool* pool, Dpa* list, void* chunk) {
    if (list == nullptr) return makeList(cache->giveLists, pool);
    if (dpaAppend(list, chunk)) {
        --list->count;
    } else {
        flush(cache, Ending::kNo);
    }
    return list;
}

void giveCached(ThreadCache* cache, const ChunkPool* pool, void* chunk) {
    Dpa* list = findList(cache->giveLists, pool);
    if (list == nullptr || list->count == list->capacity) {
        list = makeRoom(cache, pool, list, chunk);
        if (list == nullptr) return;
    }
    list->items[list->count++] = chunk;
    if (++cache->giveCount == kMostGiven) flush(cache, Ending::kNo);
}

}  // namespace

void* poolTake(ChunkPool* pool, [[maybe_unused]] const char* file, [[maybe_unused]] uint32_t line) {
    ThreadCache* cache = threadCache;
    void* chunk = cache != nullptr ? takeCached(cache, pool) : poolTakeDirect(pool);
    if (chunk != nullptr) chunkShow(pool, chunk);
    return chunk;
}

void poolGive(ChunkPool* pool,
              void* chunk,
              [[maybe_unused]] const char* file,
              [[maybe_unused]] uint32_t line) {
    if (chunkBlock(pool, chunk) == nullptr) {
        if (pool->finiChunk != nullptr) pool->finiChunk(chunk);
        std::free(chunk);
        return;
    }
    chunkHide(pool, chunk);
    if (threadCache != nullptr) {
        giveCached(threadCache, pool, chunk);
    } else {
        poolGiveDirect(pool, chunk);
    }
}

void poolThreadEnter() {
    if (poolManager.useThreadCache == 0 || threadCache != nullptr) return;
    ThreadCache* cache = makeCache();
    if (cache == nullptr) return;
    if (ThreadKey_Set(&poolManager.key, cache) == kStatusSuccess) {
        threadCache = cache;
    } else {
        freeCache(cache);
    }
}

void poolThreadLeave() {
    if (threadCache == nullptr) return;
    // Setting a slot that already has a value needs no memory and can't fail.
    [[maybe_unused]] const pelmoStatus status = ThreadKey_Set(&poolManager.key, nullptr);
    poolCacheRelease(threadCache);
}

void poolThreadRun(ThreadFunction function, void* argument) {
    poolThreadEnter();
    function(argument);
    poolThreadLeave();
}

void poolCacheRelease(void* value) {
    auto* cache = static_cast<ThreadCache*>(value);
    threadCache = nullptr;
    flush(cache, Ending::kYes);
    freeCache(cache);
}
