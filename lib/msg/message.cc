#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/containers/entry_ring.h"
#include "lib/containers/i32map.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/pool.h"
#include "lib/msg/trace_ops.h"

namespace {

constexpr uint32_t kObjectsPerBlock = 1000;
constexpr uint32_t kLeastBlocks = 1;
constexpr uint32_t kObjectsAtATime = 100;

// While it is null, objects come from the heap. It doesn't change while other threads run.
ChunkPool* objectPool = nullptr;

// Clears in pieces of 64 bytes, for which the compiler emits plain stores. For larger pieces it
// would use the processor's string instruction, whose start costs more than all of these stores.
template <size_t kBytes>
void zero(uint8_t* at) {
    constexpr size_t kPieceBytes = 64;
    if constexpr (kBytes > kPieceBytes) {
        std::memset(at, 0, kPieceBytes);
        zero<kBytes - kPieceBytes>(at + kPieceBytes);
    } else {
        std::memset(at, 0, kBytes);
    }
}

void* takeZeroed() {
    if (objectPool == nullptr) return std::calloc(1, sizeof(pelmoMsg));
    void* object = poolTake(objectPool, __FILE__, __LINE__);
    if (object == nullptr) return nullptr;
    // The entries of the index aren't cleared, since each is written before it is read.
    constexpr size_t kIndexBegin = offsetof(pelmoMsg, inlineIndex);
    constexpr size_t kIndexEnd = kIndexBegin + sizeof(pelmoMsg::inlineIndex);
    auto* bytes = static_cast<uint8_t*>(object);
    zero<kIndexBegin>(bytes);
    zero<offsetof(pelmoMsg, poolOwner) - kIndexEnd>(bytes + kIndexEnd);
    return object;
}

pelmoMsg* takeObject() {
    auto* msg = static_cast<pelmoMsg*>(takeZeroed());
    if (msg == nullptr) return nullptr;
    msg->magic = kMessageMagic;
    msg->refCount.store(1, std::memory_order_relaxed);
    msg->userOwned = 1;
    return msg;
}

// The object's own word says where it came from, since the pool may be newer than the object.
void giveObject(pelmoMsg* msg) {
    if (msg->poolOwner == nullptr) {
        std::free(msg);
    } else {
        poolGive(objectPool, msg, __FILE__, __LINE__);
    }
}

bool dropReference(pelmoMsg* msg) {
    // The last holder must see what the others did with the object.
    return msg->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

void lineUpNested(pelmoMsg* msg, pelmoMsg*& line) {
    Dpa* nested = msg->subMessages;
    if (nested == nullptr) return;
    for (uint32_t i = 0; i < nested->count; ++i) {
        auto* item = static_cast<pelmoMsg*>(nested->items[i]);
        if (!dropReference(item)) continue;
        item->nextFreed = line;
        line = item;
    }
    msg->subMessages = dpaDestroy(nested);
}

void freeMessage(pelmoMsg* msg) {
    traceLine(kTraceMsg, "Message %p destroyed", tracePointer(msg));
    msg->magic = kMessageDead;
    bufferRelease(msg->buffer);
    msgCutBackAll(msg);
    msgDropMarks(msg);
    i32mapDestroy(msg->idMap);
    if (msg->index != msg->inlineIndex) std::free(msg->index);
    giveObject(msg);
}

void writeEmptyHead(pelmoMsg* msg) {
    msg->length = kMessageHeadBytes;
    storeBe32At(msgImage(msg), kMessageHeadBytes);
    storeBe32At(msgImage(msg) + 4, kMessageMagic);
}

// Sets up a valid index without fields.
void indexEmpty(pelmoMsg* msg) {
    if (msg->index == nullptr) {
        msg->index = msg->inlineIndex;
        msg->indexCapacity = kInlineIndexEntries;
    }
    if (msg->idMap != nullptr) i32mapClear(msg->idMap);
    msg->fieldCount = 0;
    msg->indexValid = 1;
}

pelmoStatus checkHead(const uint8_t* image) {
    if (image == nullptr || loadBe32At(image + kMessageMagicOffset) != kMessageMagic) {
        return kStatusInvalidMessage;
    }
    return loadBe32At(image) >= kMessageHeadBytes ? kStatusSuccess : kStatusCorruptMessage;
}

void putImage(pelmoMsg* msg, const uint8_t* image, uint32_t length) {
    std::memcpy(msgImage(msg), image, length);
    msg->length = length;
    msg->indexValid = 0;
}

// Copies an image whose head has been checked.
pelmoStatus copyImage(pelmoMsg** out, const uint8_t* image, uint32_t length) {
    pelmoMsg* msg = nullptr;
    const pelmoStatus status = msgCreateRaw(&msg, length);
    if (status != kStatusSuccess) return status;
    putImage(msg, image, length);
    *out = msg;
    return kStatusSuccess;
}

}  // namespace

pelmoStatus msgPoolCreate() {
    if (objectPool != nullptr) return kStatusSuccess;
    objectPool = poolCreate(kObjectsPerBlock, sizeof(pelmoMsg), offsetof(pelmoMsg, poolOwner),
                            nullptr, nullptr, kLeastBlocks, kObjectsAtATime, __FILE__, __LINE__);
    return objectPool != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void msgPoolDestroy() {
    poolDestroy(objectPool, __FILE__, __LINE__);
    objectPool = nullptr;
}

pelmoStatus msgCreateRaw(pelmoMsg** out, uint32_t size) {
    Buffer* buffer = bufferCreate(size < kMessageLeastBytes ? kMessageLeastBytes : size);
    if (buffer == nullptr) return kStatusNoMemory;
    pelmoMsg* msg = takeObject();
    if (msg == nullptr) {
        bufferRelease(buffer);
        return kStatusNoMemory;
    }
    msg->buffer = buffer;
    msg->capacity = buffer->size;
    writeEmptyHead(msg);
    indexEmpty(msg);
    traceLine(kTraceMsg, "Message %p created", tracePointer(msg));
    *out = msg;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_Create(pelmoMsg** out) {
    if (out == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = msgCreateRaw(out, kMessageDefaultBytes);
    if (status == kStatusSuccess) traceLine(kTraceMsg, "pelmoMsg_Create(%p)", tracePointer(*out));
    return status;
}

pelmoStatus pelmoMsg_CreateEx(pelmoMsg** out, uint32_t size) {
    if (out == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = msgCreateRaw(out, size);
    if (status != kStatusSuccess) return status;
    traceLine(kTraceMsg, "pelmoMsg_CreateEx(%p, %u)", tracePointer(*out), size);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_CreateFromBytes(pelmoMsg** out, const void* bytes) {
    if (out == nullptr) return kStatusInvalidArgument;
    const auto* image = static_cast<const uint8_t*>(bytes);
    pelmoStatus status = checkHead(image);
    if (status == kStatusSuccess) status = copyImage(out, image, loadBe32At(image));
    if (status != kStatusSuccess) return status;
    traceLine(kTraceMsg, "pelmoMsg_CreateFromBytes(%p, %p)", tracePointer(*out), bytes);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_CreateFromBytesN(pelmoMsg** out, const void* bytes, size_t length) {
    if (length < kMessageHeadBytes) return kStatusCorruptMessage;
    if (bytes != nullptr && loadBe32At(static_cast<const uint8_t*>(bytes)) > length) {
        return kStatusCorruptMessage;
    }
    return pelmoMsg_CreateFromBytes(out, bytes);
}

pelmoStatus pelmoMsg_CreateCopy(const pelmoMsg* constMsg, pelmoMsg** out) {
    pelmoMsg* const msg = msgForReading(constMsg);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    msgFlush(msg);
    const uint8_t* shown = msgImage(msg) + msg->dataOffset;
    const pelmoStatus status = copyImage(out, shown, msg->length - msg->dataOffset);
    if (status != kStatusSuccess) return status;
    traceLine(kTraceMsg, "pelmoMsg_CreateCopy(%p, %p)", tracePointer(*out), tracePointer(msg));
    return kStatusSuccess;
}

pelmoStatus msgCreateOverBuffer(pelmoMsg** out, Buffer* buffer, uint32_t offset) {
    if (out == nullptr || buffer == nullptr) return kStatusInvalidArgument;
    if (offset > buffer->size || buffer->size - offset < kMessageHeadBytes) {
        return kStatusInvalidMessage;
    }
    const uint8_t* image = buffer->data + offset;
    if (loadBe32At(image + 4) != kMessageMagic) return kStatusInvalidMessage;
    const uint32_t length = loadBe32At(image);
    if (length < kMessageHeadBytes || length > buffer->size - offset) return kStatusCorruptMessage;

    pelmoMsg* msg = takeObject();
    if (msg == nullptr) return kStatusNoMemory;
    bufferRetain(buffer);
    msg->buffer = buffer;
    msg->base = offset;
    msg->capacity = length;
    msg->length = length;
    traceLine(kTraceMsg, "Message %p created", tracePointer(msg));
    *out = msg;
    return kStatusSuccess;
}

pelmoStatus msgCopyFields(pelmoMsg** out,
                          const pelmoMsg* msg,
                          std::span<const uint32_t> positions) {
    pelmoMsg* copy = nullptr;
    const pelmoStatus status = msgCreateRaw(&copy, msg->length);
    if (status != kStatusSuccess) return status;
    for (const uint32_t position : positions) {
        const uint32_t begin = fieldRecordOffset(msg->index[position]);
        const uint32_t sizeBytes = fieldEndOffset(msg, position) - begin;
        std::memcpy(msgImage(copy) + copy->length, msgImage(msg) + begin, sizeBytes);
        copy->length += sizeBytes;
    }
    copy->indexValid = 0;
    msgFlush(copy);
    *out = copy;
    return kStatusSuccess;
}

pelmoStatus msgShareCopy(pelmoMsg** out, pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    pelmoMsg* copy = takeObject();
    if (copy == nullptr) return kStatusNoMemory;
    msgFlush(msg);
    bufferRetain(msg->buffer);
    copy->buffer = msg->buffer;
    copy->base = msg->base;
    copy->dataOffset = msg->dataOffset;
    copy->capacity = msg->capacity;
    copy->length = msg->length;
    copy->limitAdvisory = msg->limitAdvisory;
    copy->bufferRefs = msg->bufferRefs;
    copy->sendSubjectOffset = msg->sendSubjectOffset;
    copy->replySubjectOffset = msg->replySubjectOffset;
    copy->mtypeOffset = msg->mtypeOffset;
    copy->envelopeIsLent = msg->envelopeIsLent;
    traceLine(kTraceMsg, "Message %p created as copy of %p", tracePointer(copy), tracePointer(msg));
    *out = copy;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_Destroy(pelmoMsg* msg) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->userOwned != 1) {
        traceLine(kTraceMsg, "pelmoMsg_Destroy(%p), not permitted", tracePointer(msg));
        return kStatusNotPermitted;
    }
    traceLine(kTraceMsg, "pelmoMsg_Destroy(%p)", tracePointer(msg));
    msg->magic = kMessageDead;
    msgRelease(msg);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_Detach(pelmoMsg* msg) {
    traceLine(kTraceMsg, "pelmoMsg_Detach(%p)", tracePointer(msg));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (msg->userOwned == 1) return kStatusNotPermitted;
    const pelmoStatus status = msgPrepareShared(msg);
    if (status != kStatusSuccess) return status;
    msgRetain(msg);
    msgSetOwned(msg);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetEvent(const pelmoMsg* msg, uint32_t* out) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    if (msg->deliveryEvent == 0) return kStatusNotFound;
    *out = msg->deliveryEvent;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetClosure(const pelmoMsg* msg, void** out) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    if (msg->deliveryEvent == 0) return kStatusNotFound;
    *out = msg->deliveryClosure;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_Reset(pelmoMsg* msg) {
    traceLine(kTraceMsg, "pelmoMsg_Reset(%p)", tracePointer(msg));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    // All pointers into the image are released below, so they alone needn't cause a copy.
    const uint32_t heldRefs = msg->bufferRefs;
    msg->bufferRefs = 0;
    const pelmoStatus status = msgMakeBlank(msg);
    if (status != kStatusSuccess) {
        msg->bufferRefs = heldRefs;
        return status;
    }
    msgShowOuter(msg);
    msg->sourcePortOffset = 0;
    writeEmptyHead(msg);
    indexEmpty(msg);
    msgCutBackAll(msg);
    return kStatusSuccess;
}

pelmoStatus msgTakeBytes(pelmoMsg* msg, const void* bytes) {
    const auto* image = static_cast<const uint8_t*>(bytes);
    pelmoStatus status = checkHead(image);
    if (status == kStatusSuccess) status = pelmoMsg_Reset(msg);
    if (status == kStatusSuccess) status = msgReserve(msg, loadBe32At(image));
    if (status == kStatusSuccess) putImage(msg, image, loadBe32At(image));
    return status;
}

void msgShowOuter(pelmoMsg* msg) {
    msg->sendSubjectOffset = 0;
    msg->replySubjectOffset = 0;
    msg->mtypeOffset = 0;
    msg->envelopeIsLent = false;
    msg->dataOffset = 0;
    msg->indexValid = 0;
}

void msgRetain(pelmoMsg* msg) {
    msg->refCount.fetch_add(1, std::memory_order_relaxed);
}

void msgRelease(pelmoMsg* msg) {
    if (msg == nullptr || !dropReference(msg)) return;
    msg->nextFreed = nullptr;
    // Reads of nested messages leave one object per level. They are freed from a list, because a
    // recursive release could need more stack than there is.
    for (pelmoMsg* line = msg; line != nullptr;) {
        pelmoMsg* first = line;
        line = first->nextFreed;
        lineUpNested(first, line);
        freeMessage(first);
    }
}

void msgReleaseRing(EntryRing* ring) {
    if (ring == nullptr) return;
    while (void* message = EntryRing_PopFront(ring)) {
        msgRelease(static_cast<pelmoMsg*>(message));
    }
    EntryRing_Destroy(ring);
}

void msgSetOwned(pelmoMsg* msg) {
    msg->userOwned = 1;
}

void msgClearOwned(pelmoMsg* msg) {
    msg->userOwned = 0;
}

pelmoStatus msgPrepareShared(pelmoMsg* msg) {
    return msgIsValid(msg) ? kStatusSuccess : kStatusInvalidMessage;
}

void msgSetLimitAdvisory(pelmoMsg* msg) {
    msg->limitAdvisory |= 1;
}

bool msgIsLimitAdvisory(const pelmoMsg* msg) {
    return (msg->limitAdvisory & 1) != 0;
}
