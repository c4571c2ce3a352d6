#include "pmd/sparse_run.h"

#include <cstring>

#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"

namespace {

uint64_t bytesOf(MessageRun run) {
    uint64_t bytes = 0;
    for (const pelmoMsg* msg : run) {
        bytes += msg->length;
    }
    return bytes;
}

Buffer* copyBytes(MessageRun run, uint64_t bytes) {
    if (bytes > UINT32_MAX) return nullptr;
    Buffer* buffer = bufferCreate(static_cast<uint32_t>(bytes));
    if (buffer == nullptr) return nullptr;
    uint8_t* at = buffer->data;
    for (const pelmoMsg* msg : run) {
        std::memcpy(at, msgImage(msg), msg->length);
        at += msg->length;
    }
    return buffer;
}

void dropFrom(Dpa* out, uint32_t first) {
    while (out->count > first) {
        msgRelease(static_cast<pelmoMsg*>(out->items[--out->count]));
    }
}

}  // namespace

bool runIsSparse(MessageRun run) {
    return run.front()->buffer->size > kSparseTimes * bytesOf(run);
}

pelmoStatus runCopy(MessageRun run, Dpa* out) {
    const uint32_t first = out->count;
    const auto count = static_cast<uint32_t>(run.size());
    Buffer* buffer = dpaReserve(out, first + count) ? copyBytes(run, bytesOf(run)) : nullptr;
    if (buffer == nullptr) return kStatusNoMemory;
    uint32_t offset = 0;
    pelmoStatus status = kStatusSuccess;
    for (size_t i = 0; i < run.size() && status == kStatusSuccess; ++i) {
        pelmoMsg* msg = nullptr;
        status = msgCreateOverBuffer(&msg, buffer, offset);
        if (status != kStatusSuccess) break;
        (void)dpaAppend(out, msg);  // reserved
        offset += msg->length;
    }
    bufferRelease(buffer);
    if (status != kStatusSuccess) dropFrom(out, first);
    return status;
}
