// Values that hold messages or texts: a nested message, and the arrays of both, which begin with a
// 32-bit count.

#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/wire.h"

namespace {

constexpr uint32_t kCountBytes = 4;

// The length of the message at `at`, or 0 if there is no message or it doesn't fit.
uint32_t nestedLength(const uint8_t* at, const uint8_t* end) {
    const auto leftBytes = static_cast<uint64_t>(end - at);
    if (leftBytes < kMessageHeadBytes || loadBe32At(at + 4) != kMessageMagic) return 0;
    const uint32_t length = loadBe32At(at);
    return length >= kMessageHeadBytes && length <= leftBytes ? length : 0;
}

// Copies a message's application part, if it has the size that was reserved for it.
pelmoStatus copyMessage(uint8_t*& at, const uint8_t* end, pelmoMsg* message, uint64_t* sizeBytes) {
    const void* bytes = nullptr;
    uint32_t messageBytes = 0;
    if (pelmoMsg_GetByteSize(message, &messageBytes) != kStatusSuccess ||
        pelmoMsg_GetAsBytes(message, &bytes) != kStatusSuccess) {
        return kStatusInvalidArgument;
    }
    if (messageBytes > static_cast<uint64_t>(end - at)) return kStatusInvalidArgument;
    std::memcpy(at, bytes, messageBytes);
    at += messageBytes;
    *sizeBytes = messageBytes;
    return kStatusSuccess;
}

// Makes room for the value and writes its prefix and count. `end` is set to where the last element
// must end, so that a wrong size is noticed there.
pelmoStatus openList(pelmoWriteCursor& cursor, const pelmoMsgField& field, uint8_t*& end) {
    if (writeRoom(cursor) < sizePrefixedLength(field.size)) return kStatusNoMemory;
    if (field.data.pointer == nullptr || field.size < kCountBytes) return kStatusInvalidArgument;
    const pelmoStatus status = writeSizePrefix(&cursor, field.size);
    if (status != kStatusSuccess) return status;
    end = cursor.at + field.size;
    storeBe32At(cursor.at, field.count);
    cursor.at += kCountBytes;
    return kStatusSuccess;
}

// A list as it is in the image, with its elements from `at` to `end`.
struct List {
    const uint8_t* at;
    const uint8_t* end;
    uint32_t count;
};

pelmoStatus readList(pelmoReadCursor& cursor, pelmoMsgField& field, List& list) {
    uint32_t totalBytes = 0;
    const pelmoStatus status = readValueLength(cursor, totalBytes);
    if (status != kStatusSuccess) return status;
    if (totalBytes < kCountBytes) return kStatusCorruptMessage;
    list = {cursor.at + kCountBytes, cursor.at + totalBytes, loadBe32At(cursor.at)};
    field.size = totalBytes;
    cursor.at += totalBytes;
    return kStatusSuccess;
}

// Returns the end of the element at `at`, or null if there is none.
using NextElement = const uint8_t* (*)(const uint8_t* at, const uint8_t* end);

const uint8_t* nextString(const uint8_t* at, const uint8_t* end) {
    const void* nul = std::memchr(at, 0, static_cast<size_t>(end - at));
    return nul != nullptr ? static_cast<const uint8_t*>(nul) + 1 : nullptr;
}

const uint8_t* nextMessage(const uint8_t* at, const uint8_t* end) {
    const uint32_t length = nestedLength(at, end);
    return length != 0 ? at + length : nullptr;
}

// Does the value consist of exactly as many elements as its count says?
bool listIsWhole(const List& list, NextElement next) {
    const uint8_t* at = list.at;
    for (uint32_t i = 0; i < list.count; ++i) {
        at = at < list.end ? next(at, list.end) : nullptr;
        if (at == nullptr) return false;
    }
    return at == list.end;
}

// Returns a block of pointers to the elements. It is allocated only after the elements have been
// found in the image, so that a wrong count can't make it large.
pelmoStatus decodeList(pelmoReadCursor& cursor,
                       pelmoMsgField& field,
                       pelmoDisposition& disposition,
                       NextElement next) {
    List list{};
    const pelmoStatus status = readList(cursor, field, list);
    if (status != kStatusSuccess) return status;
    const uint8_t** elements = nullptr;
    if (list.count != 0) {
        if (!listIsWhole(list, next)) return kStatusCorruptMessage;
        elements = static_cast<const uint8_t**>(std::malloc(list.count * sizeof *elements));
        if (elements == nullptr) return kStatusNoMemory;
        const uint8_t* at = list.at;
        for (uint32_t i = 0; i < list.count; ++i) {
            elements[i] = at;
            at = next(at, list.end);
        }
    }
    field.count = list.count;
    field.data.pointer = elements;
    disposition = elements != nullptr ? kDataInImage : kDataByValue;
    return kStatusSuccess;
}

}  // namespace

// A nested message begins with its own length, which serves as the size prefix.
PELMO_ENCODER_BODY(encodeMsg) {
    auto* message = static_cast<pelmoMsg*>(const_cast<void*>(field.data.pointer));
    if (message == nullptr) return kStatusInvalidArgument;
    if (writeRoom(cursor) < uint64_t{field.size} + 1) return kStatusNoMemory;
    *cursor.at = kSizeClass32;
    uint8_t* at = cursor.at + 1;
    uint64_t sizeBytes = 0;
    const pelmoStatus status = copyMessage(at, at + field.size, message, &sizeBytes);
    if (status != kStatusSuccess) return status;
    if (sizeBytes != field.size) return kStatusInvalidArgument;
    cursor.at = at;
    return kStatusSuccess;
}

PELMO_ENCODER_BODY(encodeMsgArray) {
    uint8_t* end = nullptr;
    const pelmoStatus opened = openList(cursor, field, end);
    if (opened != kStatusSuccess) return opened;
    const auto* messages = static_cast<pelmoMsg* const*>(field.data.pointer);
    for (uint32_t i = 0; i < field.count; ++i) {
        uint64_t sizeBytes = 0;
        const pelmoStatus status = copyMessage(cursor.at, end, messages[i], &sizeBytes);
        if (status != kStatusSuccess) return status;
    }
    return cursor.at == end ? kStatusSuccess : kStatusInvalidArgument;
}

PELMO_ENCODER_BODY(encodeStringArray) {
    uint8_t* end = nullptr;
    const pelmoStatus opened = openList(cursor, field, end);
    if (opened != kStatusSuccess) return opened;
    const auto* texts = static_cast<const char* const*>(field.data.pointer);
    for (uint32_t i = 0; i < field.count; ++i) {
        if (texts[i] == nullptr) return kStatusInvalidArgument;
        const size_t textBytes = std::strlen(texts[i]) + 1;
        if (textBytes > static_cast<size_t>(end - cursor.at)) return kStatusInvalidArgument;
        std::memcpy(cursor.at, texts[i], textBytes);
        cursor.at += textBytes;
    }
    return cursor.at == end ? kStatusSuccess : kStatusInvalidArgument;
}

PELMO_DECODER_BODY(decodeMsg) {
    if (readLeft(cursor) < 1 || *cursor.at != kSizeClass32) return kStatusCorruptMessage;
    const uint32_t length = nestedLength(cursor.at + 1, cursor.end);
    if (length == 0) return kStatusCorruptMessage;
    field.size = length;
    field.count = 1;
    field.data.pointer = cursor.at + 1;
    cursor.at += 1 + length;
    disposition = kDataInImage;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeMsgArray) {
    return decodeList(cursor, field, disposition, nextMessage);
}

PELMO_DECODER_BODY(decodeStringArray) {
    return decodeList(cursor, field, disposition, nextString);
}
