// A pool's creation, references and end.

#include "lib/msg/pool.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/msg/pool_internal.h"

namespace {

constexpr PoolOps kItemOps = {
    .take = [](void* pool) { return poolTake(static_cast<ChunkPool*>(pool), __FILE__, __LINE__); },
    .give = [](void* pool,
               void* item) { poolGive(static_cast<ChunkPool*>(pool), item, __FILE__, __LINE__); },
};

// Returns 0 for sizes that don't make a valid block.
uint32_t blockBytes(uint32_t chunksPerBlock, uint32_t chunkSize) {
    const uint64_t aligned =
        (uint64_t{chunkSize} + kChunkAlignment - 1) & ~uint64_t{kChunkAlignment - 1};
    const uint64_t bytes = aligned * chunksPerBlock;
    return chunksPerBlock <= INT32_MAX && bytes <= UINT32_MAX ? static_cast<uint32_t>(bytes) : 0;
}

bool makeLeastBlocks(ChunkPool* pool) {
    const LockGuard guard(pool->lock);
    for (uint32_t i = 0; i < pool->minBlockCount; ++i) {
        if (poolAddBlock(pool, pool->chunksPerBlock) != kStatusSuccess) return false;
        pool->firstBlock->fromCreation = true;
    }
    return true;
}

bool enter(ChunkPool* pool) PELMO_EXCLUDES(poolManager.lock) {
    const LockGuard guard(poolManager.lock);
    if (poolManager.pools == nullptr) return false;
    pool->id = poolManager.nextPoolId++;
    return dict32Insert(poolManager.pools, pool->id, pool) == kStatusSuccess;
}

}  // namespace

ChunkPool* poolCreate(uint32_t chunksPerBlock,
                      uint32_t chunkSize,
                      uint32_t offset,
                      PoolChunkFunction initChunk,
                      PoolChunkFunction finiChunk,
                      uint32_t minBlockCount,
                      uint32_t refreshCount,
                      const char* file,
                      uint32_t line) {
    const uint32_t blockSize = blockBytes(chunksPerBlock, chunkSize);
    if (blockSize == 0 || chunkSize < kPoolOwnerBytes || offset > chunkSize - kPoolOwnerBytes) {
        return nullptr;
    }
    void* record = std::malloc(sizeof(ChunkPool));
    if (record == nullptr) return nullptr;
    auto* pool = new (record) ChunkPool{};
    if (Lock_Init(&pool->lock, LockRank::kPool) != kStatusSuccess) {
        std::free(record);
        return nullptr;
    }
    pool->blockSize = blockSize;
    pool->chunkSize = chunkSize;
    pool->alignedChunkSize = blockSize / chunksPerBlock;
    pool->chunksPerBlock = chunksPerBlock;
    pool->offset = offset;
    pool->minBlockCount = minBlockCount;
    pool->refreshCount = std::max(refreshCount, 1u);
    pool->initChunk = initChunk;
    pool->finiChunk = finiChunk;
    pool->file = file;
    pool->line = line;
    pool->seam = {&kItemOps, pool, chunkSize - kPoolOwnerBytes};

    if (!makeLeastBlocks(pool) || !enter(pool)) {
        poolFree(pool);
        return nullptr;
    }
    // The manager already lists the pool, so a concurrent start or stop of the timers finds it.
    if (poolArmTimer(pool) != kStatusSuccess) {
        poolDestroy(pool, file, line);
        return nullptr;
    }
    return pool;
}

void poolDestroy(ChunkPool* pool,
                 [[maybe_unused]] const char* file,
                 [[maybe_unused]] uint32_t line) {
    if (pool == nullptr) return;
    uint32_t timer = 0;
    {
        const LockGuard guard(poolManager.lock);
        ++poolManager.generation;
        pool->ownerGone = true;
        timer = std::exchange(pool->reclaimTimer, 0);
    }
    if (timer != 0) poolDropTimer(pool, timer);
    poolRelease(pool);
}

uint64_t poolSizes(ChunkPool* pool, uint32_t* outChunks, uint32_t* outAvailable) {
    const LockGuard guard(pool->lock);
    if (outChunks != nullptr) *outChunks = pool->blockCount * pool->chunksPerBlock;
    if (outAvailable != nullptr) *outAvailable = pool->chunksAvailable;
    return uint64_t{pool->blockCount} * pool->blockSize;
}

uint32_t poolChunkSize(const ChunkPool* pool) {
    return pool->chunkSize;
}

ChunkPool* poolRetain(uint32_t id) {
    const LockGuard guard(poolManager.lock);
    void* pool = nullptr;
    if (dict32Find(poolManager.pools, id, &pool) != kStatusSuccess) return nullptr;
    ++static_cast<ChunkPool*>(pool)->refCount;
    return static_cast<ChunkPool*>(pool);
}

void poolRelease(ChunkPool* pool) {
    {
        const LockGuard guard(poolManager.lock);
        if (--pool->refCount != 0) return;
        dict32Remove(poolManager.pools, pool->id, nullptr);
    }
    poolFree(pool);
}

void poolFree(ChunkPool* pool) {
    poolFreeBlocks(pool);
    Lock_Destroy(&pool->lock);
    std::free(pool);
}
