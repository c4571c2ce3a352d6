// The short road of additions, inlined into each typed call: ten integers are a message that some
// senders build for every tick. Sources of the message object alone include this.

#pragma once

#include <cstdint>
#include <cstring>

#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"

constexpr uint32_t kMaxNameSize = kMaxNameChars + 1;

// With the NUL; 0 for no name. Above kMaxNameSize for one that is too long.
[[nodiscard]] inline uint32_t fieldNameSize(const char* name) {
    return name != nullptr ? static_cast<uint32_t>(strnlen(name, kMaxNameSize)) + 1 : 0;
}

// Names are short, and a call of memcpy takes longer than their bytes: words, the last of which may
// lie over the one ahead of it.
inline void copyName(uint8_t* to, const char* from, uint32_t sizeBytes) {
    constexpr uint32_t kWordBytes = 8;
    if (sizeBytes < kWordBytes) {
        for (uint32_t i = 0; i < sizeBytes; ++i) {
            to[i] = static_cast<uint8_t>(from[i]);
        }
        return;
    }
    const uint32_t lastWord = sizeBytes - kWordBytes;
    for (uint32_t i = 0; i < lastWord; i += kWordBytes) {
        std::memcpy(to + i, from + i, kWordBytes);
    }
    std::memcpy(to + lastWord, from + lastWord, kWordBytes);
}

// Record head, type and size byte of a scalar.
constexpr uint32_t kScalarHeadBytes = 3;

// A call that is to be traced goes the long road, where the line stands.
[[nodiscard]] inline bool additionIsPlain(const pelmoMsg* msg) {
    return msgIsValid(msg) && msg->indexValid != 0 && msg->fieldCount < msg->indexCapacity &&
           msg->bufferRefs == 0 && !bufferIsShared(msg->buffer) && !traceWants(kTraceMsgDetail);
}

// Begins the record of a scalar in the common case: no id, an index that stands and has room, an
// image that is the message's alone and has room. Name and index entry are there afterwards;
// returns the place of the type byte, which the size byte and the value follow. Null, and nothing
// done, where only pelmoMsg_AddField can tell what becomes of it.
[[nodiscard, gnu::always_inline]] inline uint8_t* msgPlaceScalar(pelmoMsg* msg,
                                                                 const char* name,
                                                                 uint16_t id,
                                                                 uint32_t valueBytes) {
    if (!additionIsPlain(msg) || id != 0) return nullptr;
    const uint32_t nameSize = fieldNameSize(name);
    const uint32_t recordBytes = nameSize + kScalarHeadBytes + valueBytes;
    if (nameSize > kMaxNameSize || recordBytes >= msg->capacity - msg->length) return nullptr;

    uint8_t* record = msgImage(msg) + msg->length;
    record[0] = static_cast<uint8_t>(nameSize);
    copyName(record + 1, name, nameSize);
    msg->index[msg->fieldCount++] = {
        .nameOffset = msg->length + 1, .nameSize = nameSize, .nameAreaSize = nameSize, .id = 0};
    msg->length += recordBytes;
    return record + 1 + nameSize;
}
