// The fast paths of additions and reads, inlined into each typed call: a few numbers, times and
// short texts are what senders build for every tick. Sources of the message object alone include
// this.

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

// Names and short values are copied by words, since a call of memcpy takes longer than their bytes.
// The last word may overlap the one before it.
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

[[nodiscard]] inline bool sameShort(const uint8_t* a, const void* b, uint32_t sizeBytes) {
    const auto* bytes = static_cast<const uint8_t*>(b);
    const auto sameWord = [&](uint32_t at) {
        uint64_t words[2];
        std::memcpy(&words[0], a + at, sizeof words[0]);
        std::memcpy(&words[1], bytes + at, sizeof words[1]);
        return words[0] == words[1];
    };
    if (sizeBytes < sizeof(uint64_t)) {
        uint32_t same = 0;
        while (same < sizeBytes && a[same] == bytes[same]) {
            ++same;
        }
        return same == sizeBytes;
    }
    const uint32_t lastWord = sizeBytes - static_cast<uint32_t>(sizeof(uint64_t));
    for (uint32_t i = 0; i < lastWord; i += sizeof(uint64_t)) {
        if (!sameWord(i)) return false;
    }
    return sameWord(lastWord);
}

// A call that is to be traced takes the slow path, which writes the line.
[[nodiscard]] inline bool additionIsPlain(const pelmoMsg* msg) {
    return msgIsValid(msg) && msg->indexValid != 0 && msg->fieldCount < msg->indexCapacity &&
           msg->bufferRefs == 0 && !bufferIsShared(msg->buffer) && !traceWants(kTraceMsgDetail);
}

// Begins a record in the common case: no id, a value short enough for a size prefix of one byte, a
// valid index with room, and an image that isn't shared. Writes the name, the size byte and the
// index entry. Returns the place of the type byte; the value goes two bytes after it. Returns null
// and adds no record in any other case: use pelmoMsg_AddField. The image grows as in
// pelmoMsg_AddField, by the size that the field's record has there.
[[nodiscard, gnu::always_inline]] inline uint8_t* msgPlaceShort(
    pelmoMsg* msg, const char* name, uint16_t id, uint64_t valueBytes, uint64_t fieldBytes) {
    if (!additionIsPlain(msg) || id != 0 || valueBytes >= kFirst16BitSize) return nullptr;
    const uint32_t nameSize = fieldNameSize(name);
    const uint32_t recordBytes = nameSize + kShortHeadBytes + static_cast<uint32_t>(valueBytes);
    if (nameSize > kMaxNameSize) return nullptr;
    const uint64_t need = nameSize + kShortHeadBytes + fieldBytes;
    if (need >= msg->capacity - msg->length) [[unlikely]] {
        if (msgReserve(msg, need) != kStatusSuccess) return nullptr;
    }

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

// The value and length of a field of that wire type with a size prefix of one byte; null for any
// other field, which needs a general read.
[[nodiscard]] inline const uint8_t* msgShortValue(const pelmoMsg* msg,
                                                  uint32_t position,
                                                  uint8_t wireType,
                                                  uint32_t& valueBytes) {
    const uint32_t typeOffset = fieldTypeOffset(msg->index[position]);
    const uint8_t* type = msgImage(msg) + typeOffset;
    valueBytes = type[1];
    // The prefix of an application's encoder may claim more than the record has.
    const bool isShort = type[0] == wireType && valueBytes < kFirst16BitSize &&
                         valueBytes + 2 <= fieldEndOffset(msg, position) - typeOffset;
    return isShort ? type + 2 : nullptr;
}
