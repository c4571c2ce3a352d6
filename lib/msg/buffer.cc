#include "lib/msg/buffer.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

Buffer* takeRecord() {
    void* block = std::calloc(1, sizeof(Buffer));
    return block != nullptr ? new (block) Buffer{} : nullptr;
}

void giveRecord(Buffer* buffer) {
    std::free(buffer);
}

}  // namespace

Buffer* bufferCreate(uint32_t size) {
    Buffer* buffer = takeRecord();
    if (buffer == nullptr) return nullptr;
    buffer->refCount.store(1, std::memory_order_relaxed);
    if (size == 0) return buffer;

    if (size < kBufferLeastBytes) size = kBufferLeastBytes;
    buffer->data = static_cast<uint8_t*>(std::malloc(size));
    if (buffer->data == nullptr) {
        giveRecord(buffer);
        return nullptr;
    }
    buffer->size = size;
    return buffer;
}

Buffer* bufferClone(const Buffer* source,
                    uint32_t sourceOffset,
                    uint32_t newSize,
                    uint32_t copySize) {
    assert(sourceOffset <= source->size && copySize <= source->size - sourceOffset);
    assert(copySize <= newSize);
    Buffer* buffer = bufferCreate(newSize);
    if (buffer == nullptr) return nullptr;
    if (copySize != 0) std::memcpy(buffer->data, source->data + sourceOffset, copySize);
    return buffer;
}

pelmoStatus bufferGrow(Buffer* buffer, int32_t additional) {
    const int64_t size = int64_t{buffer->size} + additional;
    if (size < 0 || size > UINT32_MAX) return kStatusNoMemory;
    if (size == 0) {
        std::free(buffer->data);
        buffer->data = nullptr;
        buffer->size = 0;
        return kStatusSuccess;
    }
    void* data = std::realloc(buffer->data, static_cast<size_t>(size));
    if (data == nullptr) return kStatusNoMemory;
    buffer->data = static_cast<uint8_t*>(data);
    buffer->size = static_cast<uint32_t>(size);
    return kStatusSuccess;
}

void bufferRetain(Buffer* buffer) {
    buffer->refCount.fetch_add(1, std::memory_order_relaxed);
}

void bufferRelease(Buffer* buffer) {
    if (buffer == nullptr) return;
    // The last holder frees what the others have used.
    if (buffer->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    std::free(buffer->data);
    giveRecord(buffer);
}
