// Values that are bytes: opaque, text, packed subjects, and documents, which travel compressed
// (zlib's format, RFC 1950).

#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/wire.h"

namespace {

constexpr uint32_t kTwoPrefixBytes = 2 * kMostPrefixBytes;

// Deflate compresses at best 258 bytes into 2 bits (RFC 1951). A document that claims a higher
// ratio is corrupt, and nothing is allocated for it.
constexpr uint64_t kMostInflation = 1032;

pelmoStatus encodeBytes(pelmoWriteCursor& cursor, const void* data, uint64_t sizeBytes) {
    if (writeRoom(cursor) < sizePrefixedLength(sizeBytes)) return kStatusNoMemory;
    if (sizeBytes != 0 && data == nullptr) return kStatusInvalidArgument;
    const pelmoStatus status = writeSizePrefix(&cursor, sizeBytes);
    if (status != kStatusSuccess) return status;
    if (sizeBytes != 0) std::memcpy(cursor.at, data, sizeBytes);
    cursor.at += sizeBytes;
    return kStatusSuccess;
}

struct FreeBlock {
    void operator()(uint8_t* block) const { std::free(block); }
};
using Block = std::unique_ptr<uint8_t, FreeBlock>;

Block makeBlock(uint64_t sizeBytes) {
    return Block(static_cast<uint8_t*>(std::malloc(sizeBytes)));
}

pelmoStatus inflateInto(uint8_t* block,
                        uint32_t documentBytes,
                        const uint8_t* data,
                        uint32_t bytes) {
    uLongf inflated = documentBytes;
    const int result = uncompress(block, &inflated, data, bytes);
    if (result == Z_MEM_ERROR) return kStatusNoMemory;
    return result == Z_OK && inflated == documentBytes ? kStatusSuccess : kStatusCorruptMessage;
}

}  // namespace

PELMO_ENCODER_BODY(encodeOpaque) {
    return encodeBytes(cursor, field.data.pointer, field.size);
}

PELMO_ENCODER_BODY(encodeString) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    const bool measured = field.size == 0 && text != nullptr;
    return encodeBytes(cursor, text, measured ? std::strlen(text) + 1 : field.size);
}

PELMO_DECODER_BODY(decodeBlock) {
    uint32_t sizeBytes = 0;
    const pelmoStatus status = readValueLength(cursor, sizeBytes);
    if (status != kStatusSuccess) return status;
    field.size = sizeBytes;
    field.count = 1;
    field.data.pointer = sizeBytes != 0 ? cursor.at : nullptr;
    cursor.at += sizeBytes;
    disposition = sizeBytes != 0 ? kDataInImage : kDataByValue;
    return kStatusSuccess;
}

// A packed subject begins with its own length, which serves as the size prefix.
PELMO_ENCODER_BODY(encodeSubject) {
    const auto* subject = static_cast<const uint8_t*>(field.data.pointer);
    if (subject == nullptr) return kStatusInvalidArgument;
    if (writeRoom(cursor) < uint64_t{field.size} + 1) return kStatusNoMemory;
    // The check of the form reads as many bytes as the subject's length says, so that comes first.
    if (field.size < kSubjectHeadBytes || subjectLength(subject) != field.size) {
        return kStatusInvalidArgument;
    }
    if (!subjectIsValid(subject)) return kStatusInvalidArgument;
    *cursor.at = kSizeClass16;
    std::memcpy(cursor.at + 1, subject, field.size);
    cursor.at += 1 + field.size;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeSubject) {
    const uint64_t leftBytes = readLeft(cursor);
    if (leftBytes < 3 || leftBytes - 1 < loadBe16At(cursor.at + 1)) return kStatusCorruptMessage;
    if (!subjectFieldIsValid(cursor.at)) return kStatusCorruptMessage;
    field.size = loadBe16At(cursor.at + 1);
    field.count = 1;
    field.data.pointer = cursor.at + 1;
    cursor.at += 1 + field.size;
    disposition = kDataInImage;
    return kStatusSuccess;
}

// The compressed stream is first written after room for the two largest prefixes. When its length
// is known, the prefixes are written and the stream is moved up to them.
PELMO_ENCODER_BODY(encodeXml) {
    if (field.data.pointer == nullptr) return kStatusInvalidArgument;
    if (writeRoom(cursor) < kTwoPrefixBytes) return kStatusNoMemory;
    uint8_t* stream = cursor.at + kTwoPrefixBytes;
    uLongf streamBytes = writeRoom(cursor) - kTwoPrefixBytes;
    if (compress(stream, &streamBytes, static_cast<const Bytef*>(field.data.pointer), field.size) !=
        Z_OK) {
        return kStatusNoMemory;
    }

    pelmoStatus status = writeSizePrefix(&cursor, streamBytes + sizePrefixBytes(field.size));
    if (status == kStatusSuccess) status = writeSizePrefix(&cursor, field.size);
    if (status != kStatusSuccess) return status;
    std::memmove(cursor.at, stream, streamBytes);
    cursor.at += streamBytes;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeXml) {
    uint32_t outerBytes = 0;
    pelmoStatus status = readValueLength(cursor, outerBytes);
    if (status != kStatusSuccess) return status;
    pelmoReadCursor inner{cursor.at, cursor.at + outerBytes};
    uint32_t documentBytes = 0;
    status = readSizePrefix(&inner, &documentBytes);
    if (status != kStatusSuccess) return status;

    const auto storedBytes = static_cast<uint32_t>(readLeft(inner));
    const bool compressed = documentBytes != 0;
    if (!compressed) documentBytes = storedBytes;
    if (documentBytes > storedBytes * kMostInflation) return kStatusCorruptMessage;
    Block block;
    if (storedBytes != 0) {
        block = makeBlock(documentBytes);
        if (block == nullptr) return kStatusNoMemory;
        if (compressed) {
            status = inflateInto(block.get(), documentBytes, inner.at, storedBytes);
            if (status != kStatusSuccess) return status;
        } else {
            std::memcpy(block.get(), inner.at, storedBytes);
        }
    }
    field.size = documentBytes;
    field.count = 1;
    disposition = block != nullptr ? kDataOwnedBlock : kDataByValue;
    field.data.pointer = block.release();
    cursor.at += outerBytes;
    return kStatusSuccess;
}
