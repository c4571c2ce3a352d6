#include "tests/support/message_values.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/subject.h"

namespace {

void append(Bytes& to, const Bytes& bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void appendBe(Bytes& to, uint64_t number, size_t width) {
    while (width-- > 0) {
        to.push_back(static_cast<uint8_t>(number >> (8 * width)));
    }
}

void appendPrefix(Bytes& to, size_t sizeBytes) {
    if (sizeBytes < 120) {
        to.push_back(static_cast<uint8_t>(sizeBytes));
    } else if (sizeBytes < 30000) {
        to.push_back(121);
        appendBe(to, sizeBytes + 2, 2);
    } else {
        to.push_back(122);
        appendBe(to, sizeBytes + 4, 4);
    }
}

void appendSwapped(Bytes& to, const Bytes& elements, size_t width) {
    for (size_t at = 0; at < elements.size(); at += width) {
        for (size_t i = width; i-- > 0;) {
            to.push_back(elements[at + i]);
        }
    }
}

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

Bytes countedBody(const FieldValue& value) {
    Bytes body;
    appendBe(body, value.count, 4);
    for (const std::string& text : value.texts) {
        body.insert(body.end(), text.c_str(), text.c_str() + text.size() + 1);
    }
    for (const Bytes& image : value.images) {
        append(body, image);
    }
    return body;
}

void appendValue(Bytes& to, const FieldValue& value) {
    switch (value.type) {
        case FIELD_MSG:
            to.push_back(122);
            return append(to, value.images[0]);
        case FIELD_SUBJECT:
            to.push_back(121);
            return append(to, value.block);
        case FIELD_DATETIME:
            to.push_back(8);
            appendBe(to, static_cast<uint64_t>(value.scalar.dateTime.seconds), 4);
            appendBe(to, static_cast<uint64_t>(value.scalar.dateTime.seconds) >> 32, 1);
            return appendBe(to, value.scalar.dateTime.nanoseconds / 1000, 3);
        case FIELD_OPAQUE:
        case FIELD_STRING:
            appendPrefix(to, value.block.size());
            return append(to, value.block);
        case FIELD_BOOL:
            to.push_back(1);
            return to.push_back(static_cast<uint8_t>(value.scalar.boolean));
        case FIELD_NONE:
            return to.push_back(0);
        case FIELD_IPPORT16:
        case FIELD_IPADDR32:
            to.push_back(static_cast<uint8_t>(value.size));
            return append(to, scalarBytes(value));
        case FIELD_STRINGARRAY:
        case FIELD_MSGARRAY: {
            const Bytes body = countedBody(value);
            appendPrefix(to, body.size());
            return append(to, body);
        }
        default:
            break;
    }
    const bool array = value.type >= FIELD_I8ARRAY;
    const Bytes elements = array ? value.block : scalarBytes(value);
    appendPrefix(to, elements.size());
    appendSwapped(to, elements, value.size);
}

bool sameTexts(const pelmoMsgField& field, const FieldValue& value) {
    const auto* texts = static_cast<const char* const*>(field.data.pointer);
    for (size_t i = 0; i < value.texts.size(); ++i) {
        if (value.texts[i] != texts[i]) return false;
    }
    return true;
}

bool sameMessages(const pelmoMsgField& field, const FieldValue& value) {
    const auto* messages = static_cast<pelmoMsg* const*>(field.data.pointer);
    for (size_t i = 0; i < value.images.size(); ++i) {
        if (imageOf(messages[i]) != value.images[i]) return false;
    }
    return true;
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
    Bytes image(kMessageHeadBytes);
    for (const Bytes& record : records) {
        append(image, record);
    }
    storeBe32At(image.data(), static_cast<uint32_t>(image.size()));
    storeBe32At(image.data() + 4, kMessageMagic);
    return image;
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
    Bytes subject(kSubjectMaxBytes);
    const int32_t size =
        subjectFromText(subject.data(), static_cast<int32_t>(subject.size()), text);
    EXPECT_GT(size, 0) << text;
    subject.resize(static_cast<size_t>(size));
    return blockValue(FIELD_SUBJECT, std::move(subject));
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
    switch (field.type) {
        case FIELD_DATETIME:
            return field.data.dateTime.seconds == value.scalar.dateTime.seconds &&
                   field.data.dateTime.nanoseconds == value.scalar.dateTime.nanoseconds;
        case FIELD_STRINGARRAY:
            return sameTexts(field, value);
        case FIELD_MSGARRAY:
            return sameMessages(field, value);
        case FIELD_MSG:
            return imageOf(static_cast<pelmoMsg*>(const_cast<void*>(field.data.pointer))) ==
                   value.images[0];
        default:
            break;
    }
    // By their bits: a NaN is itself, and -0.0 isn't 0.0.
    if (value.block.empty()) return std::memcmp(&field.data, &value.scalar, value.size) == 0;
    return std::memcmp(field.data.pointer, value.block.data(), value.block.size()) == 0;
}

Bytes recordOf(const char* name, uint16_t id, const FieldValue& value) {
    Bytes area;
    if (name != nullptr) area.assign(name, name + std::strlen(name) + 1);
    if (id != 0) appendBe(area, id, 2);
    Bytes record{static_cast<uint8_t>(area.size())};
    append(record, area);
    record.push_back(foldedType(value.type));
    appendValue(record, value);
    return record;
}
