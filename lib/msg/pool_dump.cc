// Writes a pool to the log: its numbers, and a map of the chunks of each block.

#include <algorithm>
#include <cinttypes>

#include "lib/base/log.h"
#include "lib/msg/pool_internal.h"

namespace {

constexpr uint32_t kChunksPerLine = 50;

// "x" is a chunk that isn't prepared yet, "f" a free one, a blank one that is taken.
void dumpMapLine(const ChunkPool* pool, const Block* block, uint32_t first) {
    const uint32_t count = std::min(kChunksPerLine, pool->chunksPerBlock - first);
    char line[kChunksPerLine + 1];
    for (uint32_t i = 0; i < count; ++i) {
        line[i] = first + i < block->initCount ? ' ' : 'x';
    }
    line[count] = '\0';
    for (uint32_t i = 0; i < block->free->count; ++i) {
        const auto* chunk = static_cast<const uint8_t*>(block->free->items[i]);
        const auto place = static_cast<uint32_t>(chunk - block->chunks) / pool->alignedChunkSize;
        if (place >= first && place - first < count) line[place - first] = 'f';
    }
    logPrint("\t\t\t|%s|", line);
}

void dumpBlock(const ChunkPool* pool, const Block* block, uint32_t number) {
    logPrint("\tBlock %u:", number);
    logPrint("\t\tblock:\t\t%p", static_cast<const void*>(block));
    logPrint("\t\tsize:\t\t%u", block->size);
    logPrint("\t\tmmaped:\t\t%u", block->mmaped);
    logPrint("\t\tfreeable:\t%u", block->freeable);
    logPrint("\t\tchunks:\t\t%p", static_cast<const void*>(block->chunks));
    logPrint("\t\tinitCount:\t%u", block->initCount);
    logPrint("\t\tchunksAvailable:%u", block->free->count);
    logPrint("\t\tFree Chunks:");
    for (uint32_t first = 0; first < pool->chunksPerBlock; first += kChunksPerLine) {
        dumpMapLine(pool, block, first);
    }
}

}  // namespace

void poolDumpLocked(const ChunkPool* pool) {
    logPrint("Pool:");
    logPrint("\tid:\t\t%u", pool->id);
    logPrint("\trefCount:\t%u", pool->refCount);
    logPrint("\tblockSize:\t%u", pool->blockSize);
    logPrint("\tchunkSize:\t%u", pool->chunkSize);
    logPrint("\tchunksPerBlock:\t%u", pool->chunksPerBlock);
    logPrint("\toffset:\t\t%u", pool->offset);
    logPrint("\tminBlockCount:\t%u", pool->minBlockCount);
    logPrint("\tblockCount:\t%u", pool->blockCount);
    logPrint("\trefreshCount:\t%u", pool->refreshCount);
    logPrint("\tchunksAvailable:%u", pool->chunksAvailable);
    logPrint("\tchunksIssued:\t%" PRIu64, pool->chunksIssued);
    logPrint("\tchunksReturned:\t%" PRIu64, pool->chunksReturned);
    uint32_t number = 0;
    for (const Block* block = pool->firstBlock; block != nullptr; block = block->next) {
        dumpBlock(pool, block, number++);
    }
}
