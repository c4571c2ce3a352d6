// The manager of all pools: their ids, the key of the thread caches, the reclaim timers.
//
// Timers are made and destroyed with the manager's lock released, because their locks are further
// out in the order. After making one, the caller checks under the lock whether it is still wanted.

#include <utility>

#include "lib/base/log.h"
#include "lib/msg/pool_internal.h"

PoolTimerOps poolTimerOps = {};
constinit PoolManager poolManager;

namespace {

constexpr double kReclaimSeconds = 60.0;
constexpr uint32_t kPoolsBuckets = 128;
constexpr uint32_t kListedPools = 32;

// Sizes of the pools that containers make.
constexpr uint32_t kItemMinBlocks = 1;
constexpr uint32_t kItemRefresh = 10;

ItemPool* makeItemPool(uint32_t itemBytes, uint32_t itemsPerBlock) {
    if (itemBytes < kPoolOwnerBytes) return nullptr;
    ChunkPool* pool = poolCreate(itemsPerBlock, itemBytes, itemBytes - kPoolOwnerBytes, nullptr,
                                 nullptr, kItemMinBlocks, kItemRefresh, __FILE__, __LINE__);
    return pool != nullptr ? &pool->seam : nullptr;
}

void destroyItemPool(ItemPool* pool) {
    poolDestroy(static_cast<ChunkPool*>(pool->pool), __FILE__, __LINE__);
}

void onReclaimTimer(uint32_t, pelmoMsg*, void* closure) {
    poolReclaimTick(static_cast<ChunkPool*>(closure));
}

void onTimerGone(uint32_t, void* closure) {
    poolRelease(static_cast<ChunkPool*>(closure));
}

template <typename Visit>
void eachPool(Dict32* pools, Visit visit) {
    Dict32Iterator iterator;
    dict32IterInit(pools, &iterator);
    void* pool = nullptr;
    while (dict32IterNext(&iterator, nullptr, &pool)) {
        visit(static_cast<ChunkPool*>(pool));
    }
}

// Lists the pools and retains them. Returns false, with none retained, when memory runs out.
bool listPoolsLocked(Dpa* list, bool withTimerOnly) PELMO_REQUIRES(poolManager.lock) {
    bool whole = true;
    eachPool(poolManager.pools, [&](ChunkPool* pool) PELMO_UNCHECKED_LOCKING {
        if (withTimerOnly && pool->reclaimTimer == 0) return;
        whole = whole && dpaAppend(list, pool);
    });
    for (uint32_t i = 0; whole && i < list->count; ++i) {
        ++static_cast<ChunkPool*>(list->items[i])->refCount;
    }
    return whole;
}

uint32_t takeTimer(ChunkPool* pool) {
    const LockGuard guard(poolManager.lock);
    return std::exchange(pool->reclaimTimer, 0);
}

pelmoStatus startLocked(uint32_t queue, Dpa* list) PELMO_REQUIRES(poolManager.lock) {
    if (poolManager.pools == nullptr) return kStatusNotInitialized;
    if (poolManager.reclaimQueue != 0) return kStatusNotPermitted;
    if (!listPoolsLocked(list, false)) return kStatusNoMemory;
    poolManager.reclaimQueue = queue;
    return kStatusSuccess;
}

bool stopLocked(Dpa* list) PELMO_REQUIRES(poolManager.lock) {
    if (poolManager.pools == nullptr) return true;
    if (!listPoolsLocked(list, true)) return false;
    poolManager.reclaimQueue = 0;
    ++poolManager.reclaimRun;
    return true;
}

}  // namespace

pelmoStatus poolManagerOpen(uint32_t useThreadCache) {
    const LockGuard guard(poolManager.lock);
    if (poolManager.pools != nullptr) return kStatusSuccess;
    Dict32* pools = dict32Create(kPoolsBuckets);
    if (pools == nullptr) return kStatusNoMemory;
    if (ThreadKey_Init(&poolManager.key, poolCacheRelease) != kStatusSuccess) {
        dict32Destroy(pools);
        return kStatusNoMemory;
    }
    poolManager.pools = pools;
    poolManager.useThreadCache = useThreadCache;
    poolMakerOps = {.create = makeItemPool, .destroy = destroyItemPool};
    return kStatusSuccess;
}

void poolManagerClose() {
    poolThreadLeave();
    Dict32* pools = nullptr;
    {
        const LockGuard guard(poolManager.lock);
        pools = std::exchange(poolManager.pools, nullptr);
        poolManager.reclaimQueue = 0;
        poolManager.nextPoolId = 0;
    }
    if (pools == nullptr) return;
    poolMakerOps = {};
    eachPool(pools, poolFree);
    dict32Destroy(pools);
    ThreadKey_Destroy(&poolManager.key);
    poolManager.useThreadCache = 0;
}

pelmoStatus poolStartReclaim(uint32_t queue) {
    if (poolTimerOps.create == nullptr) return kStatusNotInitialized;
    Dpa* list = dpaCreate(kListedPools);
    if (list == nullptr) return kStatusNoMemory;
    pelmoStatus status = kStatusSuccess;
    {
        const LockGuard guard(poolManager.lock);
        status = startLocked(queue, list);
    }
    // After a failed listing the list may hold pools that weren't retained.
    const uint32_t retained = status == kStatusSuccess ? list->count : 0;
    for (uint32_t i = 0; i < retained; ++i) {
        auto* pool = static_cast<ChunkPool*>(list->items[i]);
        if (status == kStatusSuccess) status = poolArmTimer(pool);
        poolRelease(pool);
    }
    dpaDestroy(list);
    return status;
}

void poolStopReclaim() {
    Dpa* list = dpaCreate(kListedPools);
    bool listed = list != nullptr;
    if (listed) {
        const LockGuard guard(poolManager.lock);
        listed = stopLocked(list);
    }
    if (!listed) {
        logPrint("Failed to allocate memory - stop reclaim timers");
        dpaDestroy(list);
        return;
    }
    for (uint32_t i = 0; i < list->count; ++i) {
        auto* pool = static_cast<ChunkPool*>(list->items[i]);
        const uint32_t timer = takeTimer(pool);
        if (timer != 0) poolDropTimer(pool, timer);
        poolRelease(pool);
    }
    dpaDestroy(list);
}

pelmoStatus poolArmTimer(ChunkPool* pool) {
    uint32_t queue = 0;
    uint32_t run = 0;
    {
        const LockGuard guard(poolManager.lock);
        if (poolManager.reclaimQueue == 0 || pool->reclaimTimer != 0) return kStatusSuccess;
        queue = poolManager.reclaimQueue;
        run = poolManager.reclaimRun;
        ++pool->refCount;
    }
    uint32_t timer = 0;
    const pelmoStatus status =
        poolTimerOps.create(&timer, queue, onReclaimTimer, kReclaimSeconds, pool);
    if (status != kStatusSuccess) {
        poolRelease(pool);
        return status;
    }
    bool wanted = false;
    {
        const LockGuard guard(poolManager.lock);
        wanted = poolManager.reclaimRun == run && !pool->ownerGone && pool->reclaimTimer == 0;
        if (wanted) pool->reclaimTimer = timer;
    }
    if (!wanted) poolDropTimer(pool, timer);
    return kStatusSuccess;
}

void poolDropTimer(ChunkPool* pool, uint32_t timer) {
    if (poolTimerOps.destroyEx(timer, onTimerGone) != kStatusSuccess) poolRelease(pool);
}

void poolDumpAll() {
    const LockGuard guard(poolManager.lock);
    if (poolManager.pools == nullptr) return;
    eachPool(poolManager.pools, [](ChunkPool* pool) PELMO_UNCHECKED_LOCKING {
        const LockGuard poolGuard(pool->lock);
        poolDumpLocked(pool);
    });
}
