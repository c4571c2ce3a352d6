// The short road of additions, inlined into each typed call: what senders build for every tick are
// a few numbers, times and short texts. Sources of the message object alone include this.

#pragma once

#include <cstdint>
#include <cstring>

#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/msg/wire.h"

constexpr uint32_t kMaxNameSize = kMaxNameChars + 1;

// With the NUL; 0 for no name. Above kMaxNameSize for one that is too long.
[[nodiscard]] inline uint32_t fieldNameSize(const char* name) {
    return name != nullptr ? static_cast<uint32_t>(strnlen(name, kMaxNameSize)) + 1 : 0;
}

// Names and short values: a call of memcpy takes longer than their bytes. Whole words, the last of
// which may lie over the one ahead of it.
template <typename Word>
inline void copyByWords(uint8_t* to, const uint8_t* from, uint32_t sizeBytes) {
    const uint32_t lastWord = sizeBytes - static_cast<uint32_t>(sizeof(Word));
    for (uint32_t i = 0; i < lastWord; i += sizeof(Word)) {
        std::memcpy(to + i, from + i, sizeof(Word));
    }
    std::memcpy(to + lastWord, from + lastWord, sizeof(Word));
}

inline void copyShort(uint8_t* to, const void* from, uint32_t sizeBytes) {
    const auto* bytes = static_cast<const uint8_t*>(from);
    if (sizeBytes >= sizeof(uint64_t)) return copyByWords<uint64_t>(to, bytes, sizeBytes);
    if (sizeBytes >= sizeof(uint32_t)) return copyByWords<uint32_t>(to, bytes, sizeBytes);
    for (uint32_t i = 0; i < sizeBytes; ++i) {
        to[i] = bytes[i];
    }
}

// Record head, type and size byte, beside name and value.
constexpr uint32_t kShortHeadBytes = 3;

// A call that is to be traced goes the long road, where the line stands.
[[nodiscard]] inline bool additionIsPlain(const pelmoMsg* msg) {
    return msgIsValid(msg) && msg->indexValid != 0 && msg->fieldCount < msg->indexCapacity &&
           msg->bufferRefs == 0 && !bufferIsShared(msg->buffer) && !traceWants(kTraceMsgDetail);
}

// Begins the record of a value that a size byte of its own can tell, in the common case: no id, an
// index that stands and has room, an image that is the message's alone and has room. Name, size
// byte and index entry are there afterwards; returns the place of the type byte, with that of the
// value two bytes behind it. Null, and nothing done, where only pelmoMsg_AddField can tell what
// becomes of it.
[[nodiscard, gnu::always_inline]] inline uint8_t* msgPlaceShort(pelmoMsg* msg,
                                                                const char* name,
                                                                uint16_t id,
                                                                uint64_t valueBytes) {
    if (!additionIsPlain(msg) || id != 0 || valueBytes >= kFirst16BitSize) return nullptr;
    const uint32_t nameSize = fieldNameSize(name);
    const uint32_t recordBytes = nameSize + kShortHeadBytes + static_cast<uint32_t>(valueBytes);
    if (nameSize > kMaxNameSize || recordBytes >= msg->capacity - msg->length) return nullptr;

    uint8_t* record = msgImage(msg) + msg->length;
    record[0] = static_cast<uint8_t>(nameSize);
    copyShort(record + 1, name, nameSize);
    msg->index[msg->fieldCount++] = {
        .nameOffset = msg->length + 1, .nameSize = nameSize, .nameAreaSize = nameSize, .id = 0};
    msg->length += recordBytes;
    uint8_t* type = record + 1 + nameSize;
    type[1] = static_cast<uint8_t>(valueBytes);
    return type;
}
