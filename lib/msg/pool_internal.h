// What the sources of the pools share; no other file includes this.
//
// Locks: the manager's, then a pool's; never two pools'. A cache has none: only its thread knows
// it.

#pragma once

#include <cstdint>
#include <cstring>

#include "lib/base/lock.h"
#include "lib/base/sanitizer.h"
#include "lib/base/thread.h"
#include "lib/containers/dict.h"
#include "lib/containers/dpa.h"
#include "lib/containers/item_pool.h"
#include "lib/msg/pool.h"

constexpr uint32_t kChunkAlignment = 8;

struct PoolManager {
    Lock lock = PELMO_LOCK_READY(LockRank::kPoolManager);

    // Constant from open to close.
    ThreadKey key = {};
    uint32_t useThreadCache = 0;

    Dict32* pools PELMO_GUARDED_BY(lock) = nullptr;    // by id; null while the manager isn't open
    uint32_t reclaimQueue PELMO_GUARDED_BY(lock) = 0;  // 0: the timers are stopped
    uint32_t reclaimRun PELMO_GUARDED_BY(lock) = 0;    // raised at each stop
    uint32_t nextPoolId PELMO_GUARDED_BY(lock) = 0;
    uint32_t generation PELMO_GUARDED_BY(lock) = 0;  // raised each time a pool is destroyed
};

extern PoolManager poolManager;

// All fields are guarded by the pool's lock.
struct Block {
    ChunkPool* pool;  // the owner
    Block* prev;
    Block* next;
    Dpa* free;           // prepared chunks that are free; room for all, so that it never grows
    uint32_t initCount;  // chunks prepared so far, always the first ones
    uint8_t* chunks;
    uint32_t size;  // bytes at `chunks`
    uint32_t mmaped;
    uint32_t freeable;  // a tick saw the block wholly free, and nothing was taken since
    bool fromCreation;  // one of the least blocks
};

struct ChunkPool {
    // Constant once the pool is known to others.
    uint32_t id;

    Lock lock;

    // The owner's, the timer's, and those of flushes and walks under way.
    uint32_t refCount PELMO_GUARDED_BY(poolManager.lock) = 1;
    uint32_t reclaimTimer PELMO_GUARDED_BY(poolManager.lock);
    bool ownerGone PELMO_GUARDED_BY(poolManager.lock);  // no timer may be set any more

    // Constant after creation.
    uint32_t blockSize;
    uint32_t chunkSize;
    uint32_t alignedChunkSize;
    uint32_t chunksPerBlock;
    uint32_t offset;
    uint32_t minBlockCount;
    uint32_t refreshCount;
    PoolChunkFunction initChunk, finiChunk;
    const char* file;
    uint32_t line;
    ItemPool seam;  // this pool, as containers see it

    uint32_t blockCount PELMO_GUARDED_BY(lock);
    Block* firstBlock PELMO_GUARDED_BY(lock);
    Block* lastBlock PELMO_GUARDED_BY(lock);
    uint32_t chunksAvailable PELMO_GUARDED_BY(lock);  // those not yet prepared included
    uint64_t chunksIssued PELMO_GUARDED_BY(lock);
    uint64_t chunksReturned PELMO_GUARDED_BY(lock);
};

// The word of a chunk may be at any offset.
[[nodiscard]] inline Block* chunkBlock(const ChunkPool* pool, const void* chunk) {
    Block* block;
    std::memcpy(&block, static_cast<const uint8_t*>(chunk) + pool->offset, sizeof block);
    return block;
}

// No access to a free chunk, except to the pool's word.
inline void chunkHide(const ChunkPool* pool, void* chunk) {
    const uint32_t after = pool->offset + kPoolOwnerBytes;
    ASAN_POISON_MEMORY_REGION(chunk, pool->offset);
    ASAN_POISON_MEMORY_REGION(static_cast<uint8_t*>(chunk) + after, pool->alignedChunkSize - after);
}

inline void chunkShow(const ChunkPool* pool, void* chunk) {
    ASAN_UNPOISON_MEMORY_REGION(chunk, pool->chunkSize);
}

// Blocks

[[nodiscard]] pelmoStatus poolAddBlock(ChunkPool* pool, uint32_t prepare)
    PELMO_REQUIRES(pool->lock);
[[nodiscard]] void* poolTakeDirect(ChunkPool* pool) PELMO_EXCLUDES(pool->lock);
void poolGiveDirect(ChunkPool* pool, void* chunk) PELMO_EXCLUDES(pool->lock);

// Fills an empty take list; what can't be had is left out.
void poolRefill(ChunkPool* pool, Dpa* list) PELMO_EXCLUDES(pool->lock);

// Gives back all chunks of a list.
void poolPutBack(ChunkPool* pool, Dpa* list) PELMO_EXCLUDES(pool->lock);

void poolFreeBlocks(ChunkPool* pool) PELMO_EXCLUDES(pool->lock);
void poolReclaimTick(ChunkPool* pool) PELMO_EXCLUDES(pool->lock);
void poolDumpLocked(const ChunkPool* pool) PELMO_REQUIRES(poolManager.lock, pool->lock);

// Lifetime

// Null where no pool has that id.
[[nodiscard]] ChunkPool* poolRetain(uint32_t id) PELMO_EXCLUDES(poolManager.lock);
void poolRelease(ChunkPool* pool) PELMO_EXCLUDES(poolManager.lock);

// Frees a pool without references.
void poolFree(ChunkPool* pool);

// Makes the pool's timer, unless the timers are stopped or it has one. The caller holds a
// reference.
[[nodiscard]] pelmoStatus poolArmTimer(ChunkPool* pool) PELMO_EXCLUDES(poolManager.lock);

// Destroys a timer that the pool no longer names, and releases its reference.
void poolDropTimer(ChunkPool* pool, uint32_t timer);

// The destructor of the caches' key.
void poolCacheRelease(void* cache);
