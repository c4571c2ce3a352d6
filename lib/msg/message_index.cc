// Builds the index by one walk over the image, and searches it.

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/i32map.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_place.h"
#include "lib/msg/wire.h"

namespace {

constexpr uint32_t kIdBuckets = 8;

pelmoStatus indexWalk(pelmoMsg* msg, uint32_t& fieldCount) {
    const uint8_t* image = msgImage(msg);
    const uint8_t* end = image + msg->length;
    const uint8_t* at = image + msg->dataOffset + kMessageHeadBytes;
    while (at < end) {
        WireRecord record;
        const uint8_t* next = wireRecordRead(at, end, record);
        if (next == nullptr) return kStatusCorruptMessage;
        pelmoStatus status = kStatusSuccess;
        if (fieldCount == msg->indexCapacity) {
            msg->fieldCount = fieldCount;
            status = msgIndexReserve(msg);
            if (status != kStatusSuccess) return status;
        }
        msg->index[fieldCount] = {.nameOffset = static_cast<uint32_t>(at + 1 - image),
                                  .nameSize = record.nameSize,
                                  .nameAreaSize = record.nameAreaSize,
                                  .id = record.id};
        if (record.id != 0) {
            status = msgIdMapReserve(msg);
            if (status == kStatusSuccess) status = i32mapSet(msg->idMap, record.id, fieldCount);
            if (status != kStatusSuccess) return status;
        }
        ++fieldCount;
        at = next;
    }
    return kStatusSuccess;
}

// Returns the position of the first field with that name from `begin` on, or the number of fields
// if there is none. Names are compared by their size in the index, which counts the NUL; 0 means no
// name.
uint32_t findName(const pelmoMsg* msg, const char* name, uint32_t begin) {
    const size_t size = name != nullptr ? std::strlen(name) + 1 : 0;
    const uint8_t* image = msgImage(msg);
    for (uint32_t i = begin; i < msg->fieldCount; ++i) {
        const FieldIndexEntry& entry = msg->index[i];
        if (entry.nameSize != size) continue;
        if (sameShort(image + entry.nameOffset, name, entry.nameSize)) return i;
    }
    return msg->fieldCount;
}

}  // namespace

pelmoStatus msgIndexReserve(pelmoMsg* msg) {
    if (msg->fieldCount < msg->indexCapacity) return kStatusSuccess;
    const uint32_t capacity = msg->indexCapacity * 2;
    const size_t sizeBytes = size_t{capacity} * sizeof(FieldIndexEntry);
    const bool inObject = msg->index == msg->inlineIndex;
    void* block = std::realloc(inObject ? nullptr : msg->index, sizeBytes);
    if (block == nullptr) return kStatusNoMemory;
    if (inObject) std::memcpy(block, msg->inlineIndex, sizeof msg->inlineIndex);
    msg->index = static_cast<FieldIndexEntry*>(block);
    msg->indexCapacity = capacity;
    return kStatusSuccess;
}

pelmoStatus msgIdMapReserve(pelmoMsg* msg) {
    if (msg->idMap == nullptr) msg->idMap = i32mapCreate(kIdBuckets);
    return msg->idMap != nullptr ? kStatusSuccess : kStatusNoMemory;
}

pelmoStatus msgParse(pelmoMsg* msg) {
    assert(msgEnvelopeIsSound(msg));
    if (msg->indexValid != 0) return kStatusSuccess;
    if (msg->index == nullptr) {
        msg->index = msg->inlineIndex;
        msg->indexCapacity = kInlineIndexEntries;
    }
    if (msg->idMap != nullptr) i32mapClear(msg->idMap);
    if (loadBe32At(msgImage(msg) + msg->dataOffset + 4) != kMessageMagic) {
        return kStatusCorruptMessage;
    }
    if (msg->dataOffset != 0) msgFlush(msg);
    uint32_t fieldCount = 0;
    const pelmoStatus status = indexWalk(msg, fieldCount);
    if (status != kStatusSuccess) return status;
    msg->fieldCount = fieldCount;
    msg->indexValid = 1;
    return kStatusSuccess;
}

pelmoStatus msgFind(const pelmoMsg* msg, const char* name, uint16_t id, uint32_t& position) {
    if (id != 0) {
        if (msg->idMap != nullptr && i32mapFind(msg->idMap, id, &position) == kStatusSuccess) {
            return kStatusSuccess;
        }
        if (msg->idMap == nullptr && name == nullptr) return kStatusNotFound;
    }
    const uint32_t found = findName(msg, name, 0);
    if (found == msg->fieldCount) return kStatusNotFound;
    const uint16_t foundId = msg->index[found].id;
    if (id != 0 && foundId != 0 && foundId != id) return kStatusIdConflict;
    position = found;
    return kStatusSuccess;
}

pelmoStatus msgFindInstance(const pelmoMsg* msg,
                            const char* name,
                            uint32_t instance,
                            uint32_t& position) {
    uint32_t found = findName(msg, name, 0);
    while (--instance != 0 && found != msg->fieldCount) {
        found = findName(msg, name, found + 1);
    }
    if (found == msg->fieldCount) return kStatusNotFound;
    position = found;
    return kStatusSuccess;
}
