// Runs the encoder or decoder of one field by itself. Bytes are in vectors of exact size, so that
// the address sanitizer sees an access beyond them.

#pragma once

#include <cstdlib>

#include "lib/msg/codec_internal.h"
#include "tests/support/message_values.h"

// The filler of bytes that aren't written.
inline constexpr uint8_t kUntouched = 0xee;

struct Encoded {
    pelmoStatus status;
    Bytes image;  // the type byte, and the room
    size_t used;
};

inline Encoded encode(const pelmoMsgField& field, size_t room) {
    Bytes image(1 + room, kUntouched);
    image[0] = field.type;
    WriteCursor cursor{image.data() + 1, image.data() + image.size()};
    const pelmoStatus status = fieldEncoders[field.type](cursor, field);
    return {status, image, static_cast<size_t>(cursor.at - image.data())};
}

struct FreeBlock {
    void operator()(void* block) const { std::free(block); }
};
using OwnedBlock = std::unique_ptr<void, FreeBlock>;

struct Decoded {
    Bytes bytes;
    pelmoStatus status = kStatusSuccess;
    pelmoMsgField field;
    Disposition disposition = kDataByValue;
    size_t used = 0;
    OwnedBlock block;
};

inline bool isList(uint8_t type) {
    return type == FIELD_STRINGARRAY || type == FIELD_MSGARRAY;
}

inline Decoded decode(uint8_t wireType, const Bytes& bytes) {
    Decoded out;
    out.bytes = Bytes(bytes.data(), bytes.data() + bytes.size());
    out.field.type = wireType;
    const uint8_t* begin = out.bytes.data();
    ReadCursor cursor{begin, begin + out.bytes.size()};
    out.status = fieldDecoders[wireType](cursor, out.field, out.disposition);
    if (out.status != kStatusSuccess) return out;
    out.used = static_cast<size_t>(cursor.at - begin);
    const bool listInImage = out.disposition == kDataInImage && isList(wireType);
    if (out.disposition == kDataOwnedBlock || listInImage) {
        out.block.reset(const_cast<void*>(out.field.data.pointer));
    }
    return out;
}

inline Bytes firstBytes(const Bytes& bytes, size_t size) {
    return Bytes(bytes.data(), bytes.data() + size);
}

// Size prefix and value as in an image.
inline Bytes wireBytes(const FieldValue& value) {
    const Bytes record = recordOf(nullptr, 0, value);
    return Bytes(record.begin() + 2, record.end());
}
