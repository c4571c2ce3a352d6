// Values of message fields outside any message: they can be added to one, compared with what a read
// returns, and written in wire form by hand.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "tests/support/packet_builder.h"

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct MessageEnd {
    void operator()(pelmoMsg* msg) const { pelmoMsg_Destroy(msg); }
};
using Message = std::unique_ptr<pelmoMsg, MessageEnd>;

// Null without memory; other failures fail the test.
[[nodiscard]] Message newMessage();
[[nodiscard]] Message messageFrom(const Bytes& image);

// The image of the fields that are visible.
[[nodiscard]] Bytes imageOf(pelmoMsg* msg);

// Without name and id.
[[nodiscard]] inline pelmoMsgField fieldOf(uint8_t type,
                                           uint32_t size,
                                           const void* data,
                                           uint32_t count = 1) {
    return {.size = size, .count = count, .data = {.pointer = data}, .type = type};
}

// A value owns what its field points to.
struct FieldValue {
    uint8_t type = FIELD_NONE;
    uint32_t size = 0;  // as a read returns it
    uint32_t count = 1;
    pelmoFieldData scalar{.u64 = 0};
    Bytes block;                     // elements in host order, or bytes
    std::vector<std::string> texts;  // of a string array
    std::vector<Bytes> images;       // of a message, or of a message array
    std::vector<Message> messages;   // the same as objects
    std::vector<const void*> pointers;

    // Name and id are null and 0.
    [[nodiscard]] pelmoMsgField field() const;
};

using SharedValue = std::shared_ptr<const FieldValue>;

template <typename Value>
[[nodiscard]] SharedValue scalarValue(uint8_t type, Value pelmoFieldData::*member, Value number) {
    auto value = std::make_shared<FieldValue>();
    value->type = type;
    value->size = sizeof number;
    value->scalar.*member = number;
    return value;
}

[[nodiscard]] SharedValue dateTimeValue(int64_t seconds, uint32_t nanoseconds);
[[nodiscard]] SharedValue noneValue();

// Of FIELD_OPAQUE, FIELD_XML and, with the NUL that it has to end in, FIELD_STRING.
[[nodiscard]] SharedValue blockValue(uint8_t type, Bytes bytes);
[[nodiscard]] SharedValue stringValue(const std::string& text);
[[nodiscard]] SharedValue subjectValue(const char* text);

// `bytes` are the elements, each `width` wide, in host order.
[[nodiscard]] SharedValue arrayValue(uint8_t type, uint32_t width, Bytes bytes);
template <typename Word>
[[nodiscard]] SharedValue numbersValue(uint8_t type, const std::vector<Word>& words) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(words.data());
    return arrayValue(type, sizeof(Word), Bytes(bytes, bytes + words.size() * sizeof(Word)));
}
[[nodiscard]] SharedValue stringArrayValue(std::vector<std::string> texts);
[[nodiscard]] SharedValue messageValue(Bytes image);
[[nodiscard]] SharedValue messageArrayValue(std::vector<Bytes> images);

// Of a kind below kSimpleKinds, by a random number: of most types, none of messages.
inline constexpr uint32_t kSimpleKinds = 30;
[[nodiscard]] SharedValue simpleValue(uint32_t kind, uint32_t number);

// So many bytes, which differ for each length and each seed.
[[nodiscard]] Bytes patternBytes(size_t sizeBytes, uint32_t seed);

// Does the field that a read returned hold the value?
[[nodiscard]] bool fieldHolds(const pelmoMsgField& field, const FieldValue& value);

// A record as in an image. Not for FIELD_XML, whose bytes depend on the compressor.
[[nodiscard]] Bytes recordOf(const char* name, uint16_t id, const FieldValue& value);

// An image of such records.
[[nodiscard]] Bytes imageOf(const std::vector<Bytes>& records);

// The encoder or decoder of one field by itself. Bytes are in vectors of exact size, so that the
// address sanitizer sees an access beyond them.

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
    pelmoWriteCursor cursor{image.data() + 1, image.data() + image.size()};
    const pelmoStatus status = fieldEncoders[field.type](&cursor, &field);
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
    pelmoDisposition disposition = kDataByValue;
    size_t used = 0;
    OwnedBlock block;
};

inline Decoded decode(uint8_t wireType, const Bytes& bytes) {
    Decoded out;
    out.bytes = Bytes(bytes.data(), bytes.data() + bytes.size());
    out.field.type = wireType;
    const uint8_t* begin = out.bytes.data();
    pelmoReadCursor cursor{begin, begin + out.bytes.size()};
    out.status = fieldDecoders[wireType](&cursor, &out.field, &out.disposition);
    if (out.status != kStatusSuccess) return out;
    out.used = static_cast<size_t>(cursor.at - begin);
    const bool isList = wireType == FIELD_STRINGARRAY || wireType == FIELD_MSGARRAY;
    if (out.disposition == kDataOwnedBlock || (out.disposition == kDataInImage && isList)) {
        out.block.reset(const_cast<void*>(out.field.data.pointer));
    }
    return out;
}

// Size prefix and value as in an image.
inline Bytes wireBytes(const FieldValue& value) {
    const Bytes record = recordOf(nullptr, 0, value);
    return Bytes(record.begin() + 2, record.end());
}
