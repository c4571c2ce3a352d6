// The image's bytes as callers see them, and its capacity.

#include <algorithm>
#include <cassert>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"

namespace {

// The most that one call can add to a buffer.
constexpr uint32_t kMostGrowth = INT32_MAX;

void storeWhereOther(uint8_t* at, uint32_t word) {
    if (loadBe32At(at) != word) storeBe32At(at, word);
}

void flushHead(uint8_t* image, uint32_t length) {
    storeWhereOther(image, length);
    storeWhereOther(image + 4, kMessageMagic);
}

// The new one has the first `kept` bytes of the image.
pelmoStatus replaceBuffer(pelmoMsg* msg, uint64_t extra, uint32_t kept) {
    const uint64_t size = msg->capacity + extra;
    if (size > UINT32_MAX) return kStatusNoMemory;
    Buffer* buffer = bufferClone(msg->buffer, msg->base, static_cast<uint32_t>(size), kept);
    if (buffer == nullptr) return kStatusNoMemory;
    const pelmoStatus status = msgHoldBuffer(msg);
    if (status != kStatusSuccess) {
        bufferRelease(buffer);
        return status;
    }
    bufferRelease(msg->buffer);
    msg->buffer = buffer;
    msg->base = 0;
    msg->capacity = buffer->size;
    return kStatusSuccess;
}

template <typename Read>
pelmoStatus readParsed(pelmoMsg* msg, uint32_t* out, Read read) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    *out = read(msg);
    return kStatusSuccess;
}

}  // namespace

void msgFlush(pelmoMsg* msg) {
    assert(msgEnvelopeIsSound(msg));
    uint8_t* image = msgImage(msg);
    if (msg->dataOffset != 0) {
        flushHead(image + msg->dataOffset, msg->length - msg->dataOffset);
    }
    flushHead(image, msg->length);
}

Buffer* msgFlushBuffer(pelmoMsg* msg) {
    if (msg == nullptr) return nullptr;
    msgFlush(msg);
    return msg->buffer;
}

pelmoStatus msgMakeWritable(pelmoMsg* msg, uint32_t extra) {
    if (msg->bufferRefs == 0 && !bufferIsShared(msg->buffer)) return kStatusSuccess;
    return replaceBuffer(msg, extra, msg->length);
}

pelmoStatus msgMakeBlank(pelmoMsg* msg) {
    return bufferIsShared(msg->buffer) ? replaceBuffer(msg, 0, 0) : kStatusSuccess;
}

pelmoStatus msgGrow(pelmoMsg* msg, uint64_t additional) {
    if (additional > kMostGrowth || additional > UINT32_MAX - msg->buffer->size) {
        return kStatusNoMemory;
    }
    const pelmoStatus status = bufferGrow(msg->buffer, static_cast<int32_t>(additional));
    if (status != kStatusSuccess) return status;
    msg->capacity += static_cast<uint32_t>(additional);
    return kStatusSuccess;
}

pelmoStatus msgReserve(pelmoMsg* msg, uint64_t need) {
    if (need < msg->capacity - msg->length) return kStatusSuccess;
    // Doubling stops at the longest possible image, where the needed bytes may still fit.
    const uint32_t most = std::min(kMostGrowth, UINT32_MAX - msg->buffer->size);
    return msgGrow(msg, std::max(need, uint64_t{std::min(msg->capacity, most)}));
}

pelmoStatus pelmoMsg_Expand(pelmoMsg* msg, int32_t additional) {
    traceLine(kTraceMsgDetail, "pelmoMsg_Expand(%p, %d)", tracePointer(msg), additional);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (additional == 0) return kStatusSuccess;
    const int64_t unused = int64_t{msg->capacity} - msg->length;
    if (additional < -unused) return kStatusInvalidArgument;
    // A buffer that others use must not move or shrink.
    if (msg->bufferRefs != 0 || bufferIsShared(msg->buffer)) {
        return replaceBuffer(msg, static_cast<uint64_t>(unused + additional), msg->length);
    }
    if (additional > 0) return msgGrow(msg, static_cast<uint64_t>(additional));
    const pelmoStatus status = bufferGrow(msg->buffer, additional);
    if (status != kStatusSuccess) return status;
    msg->capacity -= static_cast<uint32_t>(-int64_t{additional});
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetAsBytes(const pelmoMsg* constMsg, const void** out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetAsBytes(%p, %p)", tracePointer(msg), tracePointer(out));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    msgFlush(msg);
    *out = msgImage(msg) + msg->dataOffset;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetAsBytesN(const pelmoMsg* constMsg, const void** out, size_t* outLength) {
    pelmoMsg* const msg = msgForReading(constMsg);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (outLength == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = pelmoMsg_GetAsBytes(msg, out);
    if (status == kStatusSuccess) *outLength = msg->length - msg->dataOffset;
    return status;
}

pelmoStatus pelmoMsg_GetAsBytesCopy(const pelmoMsg* constMsg, void* dest, uint32_t destSize) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetAsBytesCopy(%p, %p, %u)", tracePointer(msg),
              tracePointer(dest), destSize);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (dest == nullptr) return kStatusInvalidArgument;
    const uint32_t size = msg->length - msg->dataOffset;
    if (size > destSize) return kStatusInsufficientBuffer;
    msgFlush(msg);
    std::memcpy(dest, msgImage(msg) + msg->dataOffset, size);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetByteSize(const pelmoMsg* constMsg, uint32_t* out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetByteSize(%p, %p)", tracePointer(msg),
              tracePointer(out));
    return readParsed(msg, out, [](const pelmoMsg* of) { return of->length - of->dataOffset; });
}

pelmoStatus pelmoMsg_GetNumFields(const pelmoMsg* constMsg, uint32_t* out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetNumFields(%p, %p)", tracePointer(msg),
              tracePointer(out));
    return readParsed(msg, out, [](const pelmoMsg* of) { return of->fieldCount; });
}
