// Arrays of numbers: a size prefix of their bytes, then the elements. Bytes are returned as they
// are in the image; wider elements are converted to the host's byte order in a block of their own.

#include <cstdlib>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/wire.h"

namespace {

void turn(const uint8_t* from, uint8_t* to, uint64_t count, uint16_t) {
    for (uint64_t i = 0; i < count * 2; i += 2) {
        storeNet16At(to + i, loadBe16At(from + i));
    }
}

void turn(const uint8_t* from, uint8_t* to, uint64_t count, uint32_t) {
    for (uint64_t i = 0; i < count * 4; i += 4) {
        storeNet32At(to + i, loadBe32At(from + i));
    }
}

void turn(const uint8_t* from, uint8_t* to, uint64_t count, uint64_t) {
    for (uint64_t i = 0; i < count * 8; i += 8) {
        const uint64_t word = loadBe64At(from + i);
        std::memcpy(to + i, &word, sizeof word);
    }
}

void turn(const uint8_t* from, uint8_t* to, uint64_t count, uint8_t) {
    if (count != 0) std::memcpy(to, from, count);
}

// Swapping bytes is its own inverse, so encoder and decoder share the copy.
template <typename Word>
pelmoStatus encodeArray(pelmoWriteCursor& cursor, const pelmoMsgField& field) {
    if (field.size != sizeof(Word)) return kStatusInvalidArgument;
    const uint64_t totalBytes = sizeof(Word) * uint64_t{field.count};
    if (writeRoom(cursor) < sizePrefixedLength(totalBytes)) return kStatusNoMemory;
    if (totalBytes != 0 && field.data.pointer == nullptr) return kStatusInvalidArgument;

    const pelmoStatus status = writeSizePrefix(&cursor, totalBytes);
    if (status != kStatusSuccess) return status;
    turn(static_cast<const uint8_t*>(field.data.pointer), cursor.at, field.count, Word{});
    cursor.at += totalBytes;
    return kStatusSuccess;
}

// Bytes after the last whole element are ignored.
template <typename Word>
pelmoStatus decodeArray(pelmoReadCursor& cursor,
                        pelmoMsgField& field,
                        pelmoDisposition& disposition) {
    uint32_t totalBytes = 0;
    const pelmoStatus status = readValueLength(cursor, totalBytes);
    if (status != kStatusSuccess) return status;

    const uint32_t count = totalBytes / uint32_t{sizeof(Word)};
    uint8_t* block = nullptr;
    if (count != 0) {
        block = static_cast<uint8_t*>(std::malloc(size_t{count} * sizeof(Word)));
        if (block == nullptr) return kStatusNoMemory;
        turn(cursor.at, block, count, Word{});
    }
    field.size = sizeof(Word);
    field.count = count;
    field.data.pointer = block;
    cursor.at += totalBytes;
    disposition = block != nullptr ? kDataOwnedBlock : kDataByValue;
    return kStatusSuccess;
}

}  // namespace

PELMO_ENCODER_BODY(encodeArray8) {
    return encodeArray<uint8_t>(cursor, field);
}

PELMO_ENCODER_BODY(encodeArray16) {
    return encodeArray<uint16_t>(cursor, field);
}

PELMO_ENCODER_BODY(encodeArray32) {
    return encodeArray<uint32_t>(cursor, field);
}

PELMO_ENCODER_BODY(encodeArray64) {
    return encodeArray<uint64_t>(cursor, field);
}

PELMO_DECODER_BODY(decodeArray8) {
    uint32_t totalBytes = 0;
    const pelmoStatus status = readValueLength(cursor, totalBytes);
    if (status != kStatusSuccess) return status;
    field.size = 1;
    field.count = totalBytes;
    field.data.pointer = totalBytes != 0 ? cursor.at : nullptr;
    cursor.at += totalBytes;
    disposition = kDataByValue;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeArray16) {
    return decodeArray<uint16_t>(cursor, field, disposition);
}

PELMO_DECODER_BODY(decodeArray32) {
    return decodeArray<uint32_t>(cursor, field, disposition);
}

PELMO_DECODER_BODY(decodeArray64) {
    return decodeArray<uint64_t>(cursor, field, disposition);
}
