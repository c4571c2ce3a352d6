// Blocks, from which chunks are taken and to which they return, always under the pool's lock.
//
// A block's memory is prepared `refreshCount` chunks at a time, so that a burst touches no memory
// that it doesn't use.

#include <algorithm>
#include <cstdlib>

#include "lib/msg/pool_internal.h"

namespace {

Block* makeBlock(ChunkPool* pool) {
    auto* block = static_cast<Block*>(std::malloc(sizeof(Block)));
    Dpa* free = dpaCreate(pool->chunksPerBlock);
    auto* chunks = static_cast<uint8_t*>(std::malloc(pool->blockSize));
    if (block == nullptr || free == nullptr || chunks == nullptr) {
        std::free(block);
        dpaDestroy(free);
        std::free(chunks);
        return nullptr;
    }
    *block = {.pool = pool,
              .prev = nullptr,
              .next = nullptr,
              .free = free,
              .initCount = 0,
              .chunks = chunks,
              .size = pool->blockSize,
              .mmaped = 0,
              .freeable = 0,
              .fromCreation = false};
    ASAN_POISON_MEMORY_REGION(chunks, pool->blockSize);
    return block;
}

void freeBlock(Block* block) {
    const ChunkPool* pool = block->pool;
    ASAN_UNPOISON_MEMORY_REGION(block->chunks, block->size);
    for (uint32_t i = 0; i < block->initCount && pool->finiChunk != nullptr; ++i) {
        pool->finiChunk(block->chunks + size_t{i} * pool->alignedChunkSize);
    }
    dpaDestroy(block->free);
    std::free(block->chunks);
    std::free(block);
}

void linkFirst(ChunkPool* pool, Block* block) PELMO_REQUIRES(pool->lock) {
    block->prev = nullptr;
    block->next = pool->firstBlock;
    (block->next != nullptr ? block->next->prev : pool->lastBlock) = block;
    pool->firstBlock = block;
}

void unlink(ChunkPool* pool, Block* block) PELMO_REQUIRES(pool->lock) {
    (block->prev != nullptr ? block->prev->next : pool->firstBlock) = block->next;
    (block->next != nullptr ? block->next->prev : pool->lastBlock) = block->prev;
}

bool isPrepared(const Block* block) {
    return block->initCount == block->pool->chunksPerBlock;
}

void prepareChunks(ChunkPool* pool, Block* block, uint32_t count) {
    count = std::min(count, pool->chunksPerBlock - block->initCount);
    for (; count > 0; --count) {
        uint8_t* chunk = block->chunks + size_t{block->initCount} * pool->alignedChunkSize;
        ASAN_UNPOISON_MEMORY_REGION(chunk, pool->alignedChunkSize);
        if (pool->initChunk != nullptr) pool->initChunk(chunk);
        std::memcpy(chunk + pool->offset, &block, sizeof block);
        chunkHide(pool, chunk);
        block->free->items[block->free->count++] = chunk;
        ++block->initCount;
    }
}

// Prepares chunks if necessary. Returns false if all chunks of the block are taken.
bool hasChunks(ChunkPool* pool, Block* block) {
    if (!isPrepared(block) && block->free->count < pool->refreshCount) {
        prepareChunks(pool, block, pool->refreshCount);
    }
    return block->free->count != 0;
}

// Moves all free chunks of the block to the list in one copy. If the list can't grow, it gets as
// many as it has room for.
void moveFree(ChunkPool* pool, Block* block, Dpa* list) PELMO_REQUIRES(pool->lock) {
    const uint32_t before = list->count;
    if (dpaAppendAll(list, block->free)) {
        block->free->count = 0;
    } else {
        while (block->free->count != 0 && list->count < list->capacity) {
            list->items[list->count++] = block->free->items[--block->free->count];
        }
    }
    const uint32_t moved = list->count - before;
    if (moved == 0) return;
    block->freeable = 0;
    pool->chunksAvailable -= moved;
    pool->chunksIssued += moved;
}

// Moves the blocks from the first to `last` to the end of the list of blocks.
void moveToEnd(ChunkPool* pool, Block* last) PELMO_REQUIRES(pool->lock) {
    Block* first = pool->firstBlock;
    pool->firstBlock = last->next;
    pool->firstBlock->prev = nullptr;
    pool->lastBlock->next = first;
    first->prev = pool->lastBlock;
    pool->lastBlock = last;
    last->next = nullptr;
}

// Reorders the blocks so that the next search begins at one with free chunks.
void rotate(ChunkPool* pool, Block* stop) PELMO_REQUIRES(pool->lock) {
    const Block* next = stop->next;
    if (next == nullptr || (isPrepared(next) && next->free->count == 0)) return;
    Block* last = isPrepared(stop) ? stop : stop->prev;
    if (last != nullptr) moveToEnd(pool, last);
}

void putBackLocked(ChunkPool* pool, Block* block, void* chunk) PELMO_REQUIRES(pool->lock) {
    block->free->items[block->free->count++] = chunk;
    ++pool->chunksAvailable;
    ++pool->chunksReturned;
}

// Is the block entirely free for the second time in a row, and may it be freed?
bool isIdleLocked(ChunkPool* pool, Block* block) PELMO_REQUIRES(pool->lock) {
    if (block->free->count != block->initCount) return false;
    if (block->freeable == 0) {
        block->freeable = 1;
        return false;
    }
    return pool->blockCount > pool->minBlockCount;
}

}  // namespace

pelmoStatus poolAddBlock(ChunkPool* pool, uint32_t prepare) {
    Block* block = makeBlock(pool);
    if (block == nullptr) return kStatusNoMemory;
    linkFirst(pool, block);
    ++pool->blockCount;
    pool->chunksAvailable += pool->chunksPerBlock;
    prepareChunks(pool, block, prepare);
    return kStatusSuccess;
}

void* poolTakeDirect(ChunkPool* pool) {
    const LockGuard guard(pool->lock);
    if (pool->chunksAvailable == 0 && poolAddBlock(pool, pool->refreshCount) != kStatusSuccess) {
        return nullptr;
    }
    for (Block* block = pool->firstBlock; block != nullptr; block = block->next) {
        if (!hasChunks(pool, block)) continue;
        block->freeable = 0;
        --pool->chunksAvailable;
        ++pool->chunksIssued;
        return block->free->items[--block->free->count];
    }
    return nullptr;
}

void poolGiveDirect(ChunkPool* pool, void* chunk) {
    const LockGuard guard(pool->lock);
    putBackLocked(pool, chunkBlock(pool, chunk), chunk);
}

void poolRefill(ChunkPool* pool, Dpa* list) {
    const LockGuard guard(pool->lock);
    while (pool->chunksAvailable < pool->refreshCount) {
        if (poolAddBlock(pool, pool->refreshCount) != kStatusSuccess) break;
    }
    Block* stop = nullptr;
    for (Block* block = pool->firstBlock; block != nullptr; block = block->next) {
        if (!hasChunks(pool, block)) continue;
        moveFree(pool, block, list);
        stop = block;
        if (list->count >= pool->refreshCount) break;
    }
    if (stop != nullptr) rotate(pool, stop);
}

void poolPutBack(ChunkPool* pool, Dpa* list) {
    const LockGuard guard(pool->lock);
    while (list->count != 0) {
        void* chunk = list->items[--list->count];
        Block* block = chunkBlock(pool, chunk);
        if (block->free->count == 0 && block != pool->firstBlock) {
            unlink(pool, block);
            linkFirst(pool, block);
        }
        putBackLocked(pool, block, chunk);
    }
}

void poolFreeBlocks(ChunkPool* pool) {
    const LockGuard guard(pool->lock);
    while (Block* block = pool->firstBlock) {
        unlink(pool, block);
        freeBlock(block);
    }
    pool->blockCount = 0;
    pool->chunksAvailable = 0;
}

void poolReclaimTick(ChunkPool* pool) {
    const LockGuard guard(pool->lock);
    // The blocks made at creation are freed last, because they are the ones that should stay.
    for (const bool fromCreation : {false, true}) {
        Block* next = nullptr;
        for (Block* block = pool->firstBlock; block != nullptr; block = next) {
            next = block->next;
            if (block->fromCreation != fromCreation || !isIdleLocked(pool, block)) continue;
            pool->chunksAvailable -= pool->chunksPerBlock;
            --pool->blockCount;
            unlink(pool, block);
            freeBlock(block);
        }
    }
}
