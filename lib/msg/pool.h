// Memory pools: small objects of one size, taken and given at message rate from many threads.
//
// A pool carves chunks from blocks. Each thread that has entered keeps a cache of chunks: a take
// pops one, a give pushes one, and only when a cache runs empty or holds 256 given chunks does it
// lock the pool and move a batch. A timer returns idle blocks to the heap.
//
//     ChunkPool* pool = poolCreate(100, sizeof(Record), offsetof(Record, poolOwner), nullptr,
//                                  nullptr, 1, 10, __FILE__, __LINE__);
//     auto* record = static_cast<Record*>(poolTake(pool, __FILE__, __LINE__));
//     poolGive(pool, record, __FILE__, __LINE__);
//     poolDestroy(pool, __FILE__, __LINE__);
//
// In each chunk one word of 8 bytes, at an offset that the owner chooses, belongs to the pool: the
// block that the chunk is from. Code that zeroes a chunk stops before it. A word of 0 marks an
// object from the heap: it may be given to the pool of its kind and is freed.
//
// Ownership: a chunk belongs to its taker, on whatever thread, until it is given; its bytes are
// what they were when it was last given. Under the address sanitizer free chunks are poisoned. All
// chunks end with their pool and must not be used or given afterwards.
//
// Failure: null or kStatusNoMemory, with no half-made object left.
//
// Threads: takes and gives from any thread. The manager is opened before other threads run, and
// closed after they ended. No lock is held when timers are made or destroyed, and none is needed.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/base/thread.h"

struct ChunkPool;
struct pelmoMsg;

// Manager

// Makes room for pools and, with useThreadCache 1, for caches, and lets containers make pools
// (lib/containers/item_pool.h). kStatusSuccess if it is open already. Without the manager no pool
// can be made.
[[nodiscard]] pelmoStatus poolManagerOpen(uint32_t useThreadCache);

// Destroys all pools. The timers are stopped, and no other thread has a cache.
void poolManagerClose();

// Gives the calling thread its cache, if caches are on and it has none. A thread without memory for
// a cache takes from the pools themselves. At the thread's end or when it leaves, the cache is
// freed and its chunks are given back.
void poolThreadEnter();
void poolThreadLeave();

// Enter, the function, leave: for Thread_SetStartHook.
void poolThreadRun(ThreadFunction function, void* argument);

// What pools need of timers, filled by the floor above before reclaiming starts: its own calls. A
// timer repeats until destroyed; the completion runs once, with the timer's closure, once its
// callback can no longer run, and not at all if destroyEx fails.
struct PoolTimerOps {
    pelmoStatus (*create)(uint32_t* out,
                          uint32_t queue,
                          void (*callback)(uint32_t timer, pelmoMsg* msg, void* closure),
                          double seconds,
                          void* closure);
    pelmoStatus (*destroyEx)(uint32_t timer, void (*completion)(uint32_t timer, void* closure));
};

extern PoolTimerOps poolTimerOps;

// Makes a timer for each pool, later ones included. kStatusNotInitialized without the table or the
// manager, kStatusNotPermitted if the timers run already; else the first failure, with the timers
// made before it running.
[[nodiscard]] pelmoStatus poolStartReclaim(uint32_t queue);

// Destroys the timers; a tick that is running may end afterwards. Without memory for a list of them
// they stay, and a log line says so.
void poolStopReclaim();

// Writes all pools and their blocks to the log.
void poolDumpAll();

// Pools

// Called with the chunk: initChunk once, when the pool first prepares it, and finiChunk when its
// block is freed. What they set up survives reuse. They may run with the pool's lock held and call
// no pool.
using PoolChunkFunction = void (*)(void* chunk);

// `offset`: of the pool's word. `minBlockCount` blocks are made at once and stay. `refreshCount`
// (0: 1) chunks are prepared at a time, and moved to a cache at a time. File and line name the
// caller here and below, and have no effect. Null also for sizes that make no block, or a word
// outside the chunk.
[[nodiscard]] ChunkPool* poolCreate(uint32_t chunksPerBlock,
                                    uint32_t chunkSize,
                                    uint32_t offset,
                                    PoolChunkFunction initChunk,
                                    PoolChunkFunction finiChunk,
                                    uint32_t minBlockCount,
                                    uint32_t refreshCount,
                                    const char* file,
                                    uint32_t line);
void poolDestroy(ChunkPool* pool, const char* file, uint32_t line);  // null is ignored

// 8-byte aligned; null when memory runs out.
[[nodiscard]] void* poolTake(ChunkPool* pool, const char* file, uint32_t line);

// A thread without memory for its first give to a pool loses the chunk until the pool is destroyed.
void poolGive(ChunkPool* pool, void* chunk, const char* file, uint32_t line);

// Returns the bytes of all blocks. Outputs are optional: chunks of all blocks, and those that are
// neither taken nor in a cache.
uint64_t poolSizes(ChunkPool* pool, uint32_t* outChunks, uint32_t* outAvailable);

// The size that was asked for.
[[nodiscard]] uint32_t poolChunkSize(const ChunkPool* pool);
