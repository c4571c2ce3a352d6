#include "tests/support/message_values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "lib/base/bytes.h"

namespace {

uint8_t foldedType(uint8_t type) {
    if (type >= FIELD_I8 && type <= FIELD_U64) return type % 2 == 0 ? WIRE_INT : WIRE_UINT;
    if (type == FIELD_F32 || type == FIELD_F64) return WIRE_FLOAT;
    if (type == FIELD_IPPORT16 || type == FIELD_IPADDR32) return WIRE_NETINT;
    return type;
}

Bytes scalarBytes(const FieldValue& value) {
    Bytes bytes(value.size);
    std::memcpy(bytes.data(), &value.scalar, bytes.size());
    return bytes;
}

// Each element turned round.
Bytes swapped(Bytes elements, uint32_t width) {
    for (auto at = elements.begin(); at != elements.end(); at += width) {
        std::reverse(at, at + width);
    }
    return elements;
}

Bytes listBody(const FieldValue& value) {
    Bytes body = be32(value.count) + joined(value.images);
    for (const std::string& text : value.texts) {
        body = body + named(text);
    }
    return body;
}

// The value in wire form, without its prefix.
Bytes bodyOf(const FieldValue& value) {
    const auto [seconds, nanoseconds] = value.scalar.dateTime;
    const auto highSeconds = static_cast<uint64_t>(seconds) >> 32;
    switch (value.type) {
        case FIELD_MSG:
            return value.images[0];
        case FIELD_DATETIME:
            return be32(static_cast<uint64_t>(seconds)) +
                   be32(highSeconds << 24 | nanoseconds / 1000);
        case FIELD_SUBJECT:
        case FIELD_OPAQUE:
        case FIELD_STRING:
            return value.block;
        case FIELD_BOOL:
            return {static_cast<uint8_t>(value.scalar.boolean)};
        case FIELD_NONE:
            return {};
        case FIELD_IPPORT16:
        case FIELD_IPADDR32:
            return scalarBytes(value);
        case FIELD_STRINGARRAY:
        case FIELD_MSGARRAY:
            return listBody(value);
        default:
            return swapped(value.type >= FIELD_I8ARRAY ? value.block : scalarBytes(value),
                           value.size);
    }
}

// Parsed, so that all that an addition takes from the heap is for the message added to.
Message parsedFrom(const Bytes& image) {
    Message msg = messageFrom(image);
    EXPECT_EQ(msgParse(msg.get()), kStatusSuccess);
    return msg;
}

std::shared_ptr<FieldValue> newValue(uint8_t type, size_t size, size_t count = 1) {
    auto value = std::make_shared<FieldValue>();
    value->type = type;
    value->size = static_cast<uint32_t>(size);
    value->count = static_cast<uint32_t>(count);
    return value;
}

// Some about the borders of the size classes, with their NUL.
constexpr size_t kStringChars[] = {0,   1,   2,   7,   29,    60,    117,
                                   118, 119, 120, 130, 29998, 29999, 30000};

template <typename Value>
Value someNumber(uint8_t type, uint32_t n) {
    if (type == FIELD_BOOL) return static_cast<Value>(n % 2);
    return static_cast<Value>(static_cast<int64_t>(n * 0x9e3779b97f4a7c15u));
}

#define PELMO_SCALAR(word, type, Value, size, member) \
    [](auto n) { return scalarValue(type, &pelmoFieldData::member, someNumber<Value>(type, n)); },
#define PELMO_ARRAY(word, type, Value, size) \
    [](auto n) { return arrayValue(type, size, patternBytes((1 + n % 40) * size, n)); },

// Of a kind, by a random number.
SharedValue (*const kSimpleValues[])(uint32_t number) = {
    [](auto n) { return dateTimeValue((int64_t{n} - (1u << 31)) << 8, n % 1000000 * 1000); },
    [](auto n) { return stringValue(std::string(kStringChars[n % std::size(kStringChars)], 's')); },
    [](auto n) { return stringValue(std::string(n % 150, 's')); },
    [](auto n) { return blockValue(FIELD_OPAQUE, patternBytes(n % 130, n)); },
    [](auto n) { return arrayValue(FIELD_U8ARRAY, 1, patternBytes(1 + n % 150, n)); },
    [](auto n) {
        return stringArrayValue({std::string(n % 70, 't'), "", "end"});
    },
    [](auto n) { return subjectValue((std::string(1 + n % 90, 's') + ".E").c_str()); },
    PELMO_SCALAR_FIELDS(PELMO_SCALAR) PELMO_NUMBER_ARRAY_FIELDS(PELMO_ARRAY)};
#undef PELMO_SCALAR
#undef PELMO_ARRAY
static_assert(std::size(kSimpleValues) == kSimpleKinds);

}  // namespace

Message newMessage() {
    pelmoMsg* msg = nullptr;
    const pelmoStatus status = pelmoMsg_Create(&msg);
    EXPECT_TRUE(status == kStatusSuccess || status == kStatusNoMemory) << status;
    return Message(msg);
}

Message messageFrom(const Bytes& image) {
    pelmoMsg* msg = nullptr;
    const pelmoStatus status = pelmoMsg_CreateFromBytes(&msg, image.data());
    EXPECT_TRUE(status == kStatusSuccess || status == kStatusNoMemory) << status;
    return Message(msg);
}

Bytes imageOf(pelmoMsg* msg) {
    const void* bytes = nullptr;
    EXPECT_EQ(pelmoMsg_GetAsBytes(msg, &bytes), kStatusSuccess);
    const auto* image = static_cast<const uint8_t*>(bytes);
    return Bytes(image, image + loadBe32At(image));
}

Bytes imageOf(const std::vector<Bytes>& records) {
    return message(records);
}

pelmoMsgField FieldValue::field() const {
    pelmoMsgField field;
    field.size = size;
    field.count = count;
    field.data = scalar;
    field.type = type;
    if (!block.empty()) field.data.pointer = block.data();
    if (type == FIELD_OPAQUE && block.empty()) field.data.pointer = "";
    if (type == FIELD_MSG) field.data.pointer = messages[0].get();
    if (type == FIELD_STRINGARRAY || type == FIELD_MSGARRAY) field.data.pointer = pointers.data();
    return field;
}

SharedValue dateTimeValue(int64_t seconds, uint32_t nanoseconds) {
    auto value = newValue(FIELD_DATETIME, 12);
    value->scalar.dateTime = {seconds, nanoseconds};
    return value;
}

SharedValue noneValue() {
    return newValue(FIELD_NONE, 0);
}

SharedValue blockValue(uint8_t type, Bytes bytes) {
    auto value = newValue(type, bytes.size());
    value->block = std::move(bytes);
    return value;
}

SharedValue stringValue(const std::string& text) {
    return blockValue(FIELD_STRING, Bytes(text.c_str(), text.c_str() + text.size() + 1));
}

SharedValue subjectValue(const char* text) {
    return blockValue(FIELD_SUBJECT, packedSubject(text));
}

SharedValue arrayValue(uint8_t type, uint32_t width, Bytes bytes) {
    auto value = newValue(type, width, bytes.size() / width);
    value->block = std::move(bytes);
    return value;
}

SharedValue stringArrayValue(std::vector<std::string> texts) {
    auto value = newValue(FIELD_STRINGARRAY, 4, texts.size());
    value->texts = std::move(texts);
    for (const std::string& text : value->texts) {
        value->size += static_cast<uint32_t>(text.size()) + 1;
        value->pointers.push_back(text.c_str());
    }
    return value;
}

SharedValue messageValue(Bytes image) {
    auto value = newValue(FIELD_MSG, image.size());
    value->messages.push_back(parsedFrom(image));
    value->images.push_back(std::move(image));
    return value;
}

SharedValue messageArrayValue(std::vector<Bytes> images) {
    auto value = newValue(FIELD_MSGARRAY, 4, images.size());
    value->images = std::move(images);
    for (const Bytes& image : value->images) {
        value->size += static_cast<uint32_t>(image.size());
        value->messages.push_back(parsedFrom(image));
        value->pointers.push_back(value->messages.back().get());
    }
    return value;
}

SharedValue simpleValue(uint32_t kind, uint32_t number) {
    return kSimpleValues[kind](number);
}

Bytes patternBytes(size_t sizeBytes, uint32_t seed) {
    Bytes bytes(sizeBytes);
    uint32_t state = seed * 2654435761u + static_cast<uint32_t>(sizeBytes) + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

bool fieldHolds(const pelmoMsgField& field, const FieldValue& value) {
    if (field.type != value.type || field.size != value.size || field.count != value.count) {
        return false;
    }
    const void* at = field.data.pointer;
    if (field.type == FIELD_DATETIME) {
        return field.data.dateTime.seconds == value.scalar.dateTime.seconds &&
               field.data.dateTime.nanoseconds == value.scalar.dateTime.nanoseconds;
    }
    if (field.type == FIELD_STRINGARRAY) {
        return std::ranges::equal(value.texts,
                                  std::span(static_cast<const char* const*>(at), field.count));
    }
    if (!value.images.empty()) {
        pelmoMsg* const one[] = {static_cast<pelmoMsg*>(const_cast<void*>(at))};
        const auto* all = field.type == FIELD_MSG ? one : static_cast<pelmoMsg* const*>(at);
        return std::ranges::equal(value.images, std::span(all, field.count), {}, {},
                                  [](pelmoMsg* msg) { return imageOf(msg); });
    }
    // By their bits: a NaN is itself, and -0.0 isn't 0.0.
    if (value.block.empty()) return std::memcmp(&field.data, &value.scalar, value.size) == 0;
    return std::memcmp(at, value.block.data(), value.block.size()) == 0;
}

Bytes recordOf(const char* name, uint16_t id, const FieldValue& value) {
    Bytes area = name != nullptr ? named(name) : Bytes();
    if (id != 0) area = area + be16(id);
    const bool tellsItsSize = value.type == FIELD_MSG || value.type == FIELD_SUBJECT;
    if (!tellsItsSize) return field(area, foldedType(value.type), bodyOf(value));
    const uint8_t sizeClass = value.type == FIELD_MSG ? 122 : 121;
    return joined(
        {{static_cast<uint8_t>(area.size())}, area, {value.type, sizeClass}, bodyOf(value)});
}
