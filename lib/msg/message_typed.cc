#include "lib/msg/message_typed.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "lib/containers/subject.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/convert.h"
#include "lib/msg/field_rows.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_place.h"
#include "lib/msg/scalar.h"

namespace {

constexpr size_t kShortTextBytes = 256;  // of a text that is copied to the stack

using FieldWriter = pelmoStatus (*)(pelmoMsg* msg, const pelmoMsgField* field);

// The type and size that a row of the table writes.
struct FieldKind {
    uint8_t type;
    uint32_t size;
};

template <typename Value>
pelmoStatus writeScalar(FieldWriter write,
                        pelmoMsg* msg,
                        const char* name,
                        Value value,
                        Value pelmoFieldData::*member,
                        FieldKind kind,
                        uint16_t id) {
    pelmoMsgField field;
    field.name = name;
    field.size = kind.size;
    field.data.*member = value;
    field.id = id;
    field.type = kind.type;
    return write(msg, &field);
}

// The fast path fills no field record and looks up no encoder.
template <uint8_t kType, typename Value>
pelmoStatus addScalar(pelmoMsg* msg,
                      const char* name,
                      Value value,
                      Value pelmoFieldData::*member,
                      uint32_t size,
                      uint16_t id) {
    uint8_t* type = msgPlaceShort(msg, name, id, kScalarBytes<kType, Value>, size);
    if (type == nullptr) {
        return writeScalar(pelmoMsg_AddField, msg, name, value, member, {kType, size}, id);
    }
    constexpr uint8_t kWireType = scalarWireType(kType);
    *type = kWireType;
    storeScalar<kType>(type + 2, value);
    return kStatusSuccess;
}

pelmoStatus writePointer(FieldWriter write,
                         pelmoMsg* msg,
                         const char* name,
                         const void* data,
                         uint32_t count,
                         FieldKind kind,
                         uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (data == nullptr) return kStatusInvalidArgument;
    pelmoMsgField field;
    field.name = name;
    field.size = kind.size;
    field.count = count;
    field.data.pointer = data;
    field.id = id;
    field.type = kind.type;
    return write(msg, &field);
}

// Converts a field of another type to the type that was asked for.
pelmoStatus convertTo(pelmoMsg* msg, uint8_t type, pelmoMsgField& field) {
    const pelmoFieldConverter convert = fieldConverters[field.type];
    if (convert == nullptr) return kStatusConversionFailed;
    pelmoDisposition disposition = kDataByValue;
    const pelmoStatus status = convert(&field, type, &disposition);
    if (status != kStatusSuccess || disposition != kDataOwnedBlock) return status;
    return msgKeepBlock(msg, const_cast<void*>(field.data.pointer));
}

// Reads a field as the given type. `otherType` handles a field of another type. If the read fails,
// whatever it left with the message is released again.
template <typename OtherType>
pelmoStatus readAs(
    pelmoMsg* msg, uint32_t position, uint8_t type, pelmoMsgField& field, OtherType otherType) {
    const ReferenceMark before = msgMark(msg);
    pelmoStatus status = msgReadField(msg, position, field, NameWanted::kNo);
    if (status != kStatusSuccess || field.type == type) return status;
    status = otherType(msg, type, field);
    if (status != kStatusSuccess) msgCutBack(msg, before);
    return status;
}

// Finds a field and reads it. A value of the given wire type with a one-byte size is offered to
// `takeShort`, which reads it in the image. If that returns false, and for all other values, `read`
// is called with the field's position.
template <typename TakeShort, typename Read>
[[gnu::always_inline]] inline pelmoStatus findAndRead(pelmoMsg* msg,
                                                      const char* name,
                                                      uint16_t id,
                                                      uint8_t wireType,
                                                      TakeShort takeShort,
                                                      Read read) {
    pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFind(msg, name, id, position);
    if (status != kStatusSuccess) return status;
    uint32_t bytes = 0;
    const uint8_t* value = msgShortValue(msg, position, wireType, bytes);
    if (value != nullptr && takeShort(value, bytes)) return kStatusSuccess;
    return read(position);
}

pelmoStatus noWay(pelmoMsg*, uint8_t, pelmoMsgField&) {
    return kStatusConversionFailed;
}

pelmoStatus noWayFromLists(pelmoMsg*, uint8_t, pelmoMsgField&) {
    return kStatusInvalidArgument;
}

pelmoStatus readConverted(pelmoMsg* msg, uint32_t position, uint8_t type, pelmoMsgField& field) {
    return readAs(msg, position, type, field, convertTo);
}

// What the record points to goes again: the number is in the record.
pelmoStatus readExactly(pelmoMsg* msg, uint32_t position, uint8_t type, pelmoMsgField& field) {
    const ReferenceMark before = msgMark(msg);
    pelmoStatus status = msgReadField(msg, position, field, NameWanted::kNo);
    if (status == kStatusSuccess) status = convertExactly(field, type);
    msgCutBack(msg, before);
    return status;
}

using FieldReader = pelmoStatus (*)(pelmoMsg*, uint32_t position, uint8_t type, pelmoMsgField&);

// A bool from elsewhere may be any byte, which an exact read looks at.
template <uint8_t kType, FieldReader kRead, typename Value>
pelmoStatus readScalar(
    pelmoMsg* msg, const char* name, Value* out, Value pelmoFieldData::*member, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    constexpr bool kLooks = kType == FIELD_BOOL && kRead == readExactly;
    const auto takeShort = [out](const uint8_t* value, uint32_t bytes) {
        if (kLooks || bytes != kScalarBytes<kType, Value>) return false;
        *out = loadScalar<kType, Value>(value);
        return true;
    };
    return findAndRead(msg, name, id, scalarWireType(kType), takeShort, [=](uint32_t position) {
        pelmoMsgField field;
        const pelmoStatus status = kRead(msg, position, kType, field);
        if (status == kStatusSuccess) *out = field.data.*member;
        return status;
    });
}

// Reads a pointer and a number, which counts elements or bytes.
template <uint8_t kType, typename Value, typename OtherType>
pelmoStatus readList(pelmoMsg* msg,
                     const char* name,
                     Value** out,
                     uint32_t* outNumber,
                     uint32_t pelmoMsgField::*number,
                     uint16_t id,
                     OtherType otherType) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr || outNumber == nullptr) return kStatusInvalidArgument;
    const auto takeShort = [=](const void* value, uint32_t bytes) {
        if (kType != FIELD_OPAQUE || bytes == 0) return false;
        ++msg->bufferRefs;
        *out = static_cast<Value*>(value);
        *outNumber = bytes;
        return true;
    };
    return findAndRead(msg, name, id, kType, takeShort, [=](uint32_t position) {
        pelmoMsgField field;
        const pelmoStatus status = readAs(msg, position, kType, field, otherType);
        if (status != kStatusSuccess) return status;
        *out = static_cast<Value*>(field.data.pointer);
        *outNumber = field.*number;
        return status;
    });
}

// A text without a NUL at its end is returned as a terminated copy.
pelmoStatus terminate(pelmoMsg* msg, pelmoMsgField& field) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    if (text == nullptr || field.size == 0 || text[field.size - 1] == '\0') return kStatusSuccess;
    auto* copy = static_cast<char*>(std::malloc(size_t{field.size} + 1));
    if (copy == nullptr) return kStatusNoMemory;
    std::memcpy(copy, text, field.size);
    copy[field.size] = '\0';
    field.data.pointer = copy;
    ++field.size;
    return msgKeepBlock(msg, copy);
}

// The value has a NUL at its end, which its size counts, or no bytes at all.
pelmoStatus readTextField(pelmoMsg* msg, uint32_t position, pelmoMsgField& field) {
    const ReferenceMark before = msgMark(msg);
    pelmoStatus status = readAs(msg, position, FIELD_STRING, field, convertTo);
    if (status == kStatusSuccess) status = terminate(msg, field);
    if (status != kStatusSuccess) msgCutBack(msg, before);
    return status;
}

pelmoStatus readTextAt(pelmoMsg* msg, uint32_t position, const char** out) {
    pelmoMsgField field;
    const pelmoStatus status = readTextField(msg, position, field);
    if (status == kStatusSuccess) *out = static_cast<const char*>(field.data.pointer);
    return status;
}

pelmoStatus readText(pelmoMsg* msg, const char* name, const char** out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const auto takeShort = [=](const uint8_t* value, uint32_t bytes) {
        if (bytes == 0 || value[bytes - 1] != '\0') return false;
        ++msg->bufferRefs;
        *out = reinterpret_cast<const char*>(value);
        return true;
    };
    return findAndRead(msg, name, id, FIELD_STRING, takeShort,
                       [=](uint32_t position) { return readTextAt(msg, position, out); });
}

bool noneIsShort(const uint8_t*, uint32_t) {
    return false;
}

template <typename Value, typename OtherType>
pelmoStatus readPointer(
    pelmoMsg* msg, const char* name, Value** out, uint8_t type, uint16_t id, OtherType otherType) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    return findAndRead(msg, name, id, type, noneIsShort, [=](uint32_t position) {
        pelmoMsgField field;
        const pelmoStatus status = readAs(msg, position, type, field, otherType);
        if (status != kStatusSuccess) return status;
        // The record's pointer is const because it usually leads into the image; a nested message
        // is an object of its own and may be changed.
        *out = static_cast<Value*>(const_cast<void*>(field.data.pointer));
        return status;
    });
}

pelmoStatus readMessage(pelmoMsg* msg, const char* name, pelmoMsg** out, uint16_t id) {
    return readPointer(msg, name, out, FIELD_MSG, id, noWay);
}

pelmoStatus readSubject(pelmoMsg* msg, const char* name, const uint8_t** out, uint16_t id) {
    return readPointer(msg, name, out, FIELD_SUBJECT, id, convertTo);
}

pelmoStatus readDateTime(pelmoMsg* msg, const char* name, pelmoMsgDateTime* out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const auto takeShort = [out](const uint8_t* value, uint32_t bytes) {
        if (bytes != kDateTimeWireBytes) return false;
        *out = loadDateTime(value);
        return true;
    };
    return findAndRead(msg, name, id, FIELD_DATETIME, takeShort, [=](uint32_t position) {
        pelmoMsgField field;
        const pelmoStatus status = readAs(msg, position, FIELD_DATETIME, field, convertTo);
        if (status == kStatusSuccess) *out = field.data.dateTime;
        return status;
    });
}

pelmoStatus readSubjectTextAt(pelmoMsg* msg, uint32_t position, const char** out) {
    const ReferenceMark before = msgMark(msg);
    pelmoMsgField field;
    pelmoStatus status = readAs(msg, position, FIELD_SUBJECT, field, noWay);
    if (status == kStatusSuccess) status = convertTo(msg, FIELD_STRING, field);
    if (status != kStatusSuccess) {
        msgCutBack(msg, before);
        return status;
    }
    *out = static_cast<const char*>(field.data.pointer);
    return kStatusSuccess;
}

pelmoStatus readSubjectText(pelmoMsg* msg, const char* name, const char** out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    return findAndRead(msg, name, id, FIELD_SUBJECT, noneIsShort,
                       [=](uint32_t position) { return readSubjectTextAt(msg, position, out); });
}

template <FieldWriter kWrite>
pelmoStatus writeDateTime(pelmoMsg* msg,
                          const char* name,
                          const pelmoMsgDateTime* value,
                          uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (value == nullptr) return kStatusInvalidArgument;
    return writeScalar(kWrite, msg, name, *value, &pelmoFieldData::dateTime,
                       {FIELD_DATETIME, kDateTimeFieldBytes}, id);
}

pelmoStatus addDateTime(pelmoMsg* msg,
                        const char* name,
                        const pelmoMsgDateTime* value,
                        uint16_t id) {
    const bool fits = value != nullptr && dateTimeFits(*value);
    uint8_t* type =
        fits ? msgPlaceShort(msg, name, id, kDateTimeWireBytes, kDateTimeFieldBytes) : nullptr;
    if (type == nullptr) return writeDateTime<pelmoMsg_AddField>(msg, name, value, id);
    *type = FIELD_DATETIME;
    storeDateTime(type + 2, *value);
    return kStatusSuccess;
}

// Adds bytes that need no conversion. A size of 0 is left to the general call, which computes it.
pelmoStatus addBytes(
    pelmoMsg* msg, const char* name, const void* data, FieldKind kind, uint16_t id) {
    const bool isSized = data != nullptr && kind.size != 0;
    uint8_t* type = isSized ? msgPlaceShort(msg, name, id, kind.size, kind.size) : nullptr;
    if (type == nullptr) return writePointer(pelmoMsg_AddField, msg, name, data, 1, kind, id);
    *type = kind.type;
    copyShort(type + 2, data, kind.size);
    return kStatusSuccess;
}

// Adds what the encoder converts: elements change their byte order, and documents are compressed.
pelmoStatus addList(pelmoMsg* msg,
                    const char* name,
                    const void* data,
                    uint32_t count,
                    FieldKind kind,
                    uint16_t id) {
    if (kind.type == FIELD_OPAQUE) return addBytes(msg, name, data, kind, id);
    return writePointer(pelmoMsg_AddField, msg, name, data, count, kind, id);
}

pelmoStatus updateText(pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    return writePointer(pelmoMsg_UpdateField, msg, name, text, 1, {FIELD_STRING, 0}, id);
}

pelmoStatus addText(pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    const size_t size = text != nullptr ? std::strlen(text) + 1 : 0;
    const bool fits = size <= kMaxValueBytes;
    return addBytes(msg, name, text, {FIELD_STRING, fits ? static_cast<uint32_t>(size) : 0}, id);
}

// The value is the text and a NUL. A field takes bytes that are in one piece, so a text without a
// NUL is copied.
pelmoStatus writeTextN(FieldWriter write,
                       pelmoMsg* msg,
                       const char* name,
                       const char* text,
                       size_t length,
                       uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (text == nullptr && length != 0) return kStatusInvalidArgument;
    if (length >= kMaxValueBytes) return kStatusInvalidSize;
    char onStack[kShortTextBytes];
    std::unique_ptr<char, decltype(&std::free)> longer(nullptr, std::free);
    char* copy = onStack;
    if (length >= sizeof onStack) {
        longer.reset(static_cast<char*>(std::malloc(length + 1)));
        if (longer == nullptr) return kStatusNoMemory;
        copy = longer.get();
    }
    if (length != 0) std::memcpy(copy, text, length);
    copy[length] = '\0';
    const auto size = static_cast<uint32_t>(length + 1);
    if (write == pelmoMsg_AddField) return addBytes(msg, name, copy, {FIELD_STRING, size}, id);
    return writePointer(write, msg, name, copy, 1, {FIELD_STRING, size}, id);
}

pelmoStatus readTextN(
    pelmoMsg* msg, const char* name, const char** out, size_t* outLength, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr || outLength == nullptr) return kStatusInvalidArgument;
    const auto take = [=](const char* text, uint32_t bytes) {
        *out = bytes != 0 ? text : "";
        *outLength = bytes != 0 ? bytes - 1 : 0;
    };
    const auto takeShort = [=](const uint8_t* value, uint32_t bytes) {
        if (bytes == 0 || value[bytes - 1] != '\0') return false;
        ++msg->bufferRefs;
        take(reinterpret_cast<const char*>(value), bytes);
        return true;
    };
    return findAndRead(msg, name, id, FIELD_STRING, takeShort, [=](uint32_t position) {
        pelmoMsgField field;
        const pelmoStatus status = readTextField(msg, position, field);
        if (status != kStatusSuccess) return status;
        take(static_cast<const char*>(field.data.pointer), field.size);
        return status;
    });
}

template <FieldWriter kWrite>
pelmoStatus writeMessage(pelmoMsg* msg, const char* name, pelmoMsg* value, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    uint32_t size = 0;
    const pelmoStatus status = fieldMessageSize(value, size);
    if (status != kStatusSuccess) return status;
    return writePointer(kWrite, msg, name, value, 1, {FIELD_MSG, size}, id);
}

template <FieldWriter kWrite>
pelmoStatus writeSubject(pelmoMsg* msg, const char* name, const uint8_t* subject, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (subject == nullptr) return kStatusInvalidArgument;
    const auto size = static_cast<uint32_t>(subjectLength(subject));
    return writePointer(kWrite, msg, name, subject, 1, {FIELD_SUBJECT, size}, id);
}

template <FieldWriter kWrite>
pelmoStatus writeSubjectText(pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (text == nullptr) return kStatusInvalidArgument;
    uint8_t subject[kSubjectMaxBytes];
    if (subjectFromText(subject, sizeof subject, text) < 1) return kStatusInvalidSubject;
    return writeSubject<kWrite>(msg, name, subject, id);
}

}  // namespace

#define PELMO_DEFINE_SCALAR(word, type, Value, size, member)                                       \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) {    \
        return addScalar<type>(msg, name, value, &pelmoFieldData::member, size, id);               \
    }                                                                                              \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) { \
        return writeScalar(pelmoMsg_UpdateField, msg, name, value, &pelmoFieldData::member,        \
                           {type, size}, id);                                                      \
    }                                                                                              \
    pelmoStatus pelmoMsg_Get##word(const pelmoMsg* msg, const char* name, Value* out,              \
                                   uint16_t id) {                                                  \
        return readScalar<type, readConverted>(msgForReading(msg), name, out,                      \
                                               &pelmoFieldData::member, id);                       \
    }
PELMO_SCALAR_FIELDS(PELMO_DEFINE_SCALAR)
#undef PELMO_DEFINE_SCALAR

// `number` is a number of elements, or the size of one value in bytes.
#define PELMO_DEFINE_LIST(word, type, Value, count, size, member, otherType)                       \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value const* values,           \
                                   uint32_t number, uint16_t id) {                                 \
        return addList(msg, name, values, count, {type, size}, id);                                \
    }                                                                                              \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value const* values,        \
                                      uint32_t number, uint16_t id) {                              \
        return writePointer(pelmoMsg_UpdateField, msg, name, values, count, {type, size}, id);     \
    }                                                                                              \
    pelmoStatus pelmoMsg_Get##word(const pelmoMsg* msg, const char* name, Value const** outValues, \
                                   uint32_t* outNumber, uint16_t id) {                             \
        return readList<type>(msgForReading(msg), name, outValues, outNumber,                      \
                              &pelmoMsgField::member, id, otherType);                              \
    }
#define PELMO_DEFINE_NUMBERS(word, type, Value, bytes) \
    PELMO_DEFINE_LIST(word, type, Value, number, bytes, count, convertTo)
#define PELMO_DEFINE_POINTERS(word, type, Value, bytes) \
    PELMO_DEFINE_LIST(word, type, Value, number, bytes, count, noWayFromLists)
#define PELMO_DEFINE_BLOCK(word, type, Value, bytes) \
    PELMO_DEFINE_LIST(word, type, Value, 1, number, size, noWay)
PELMO_NUMBER_ARRAY_FIELDS(PELMO_DEFINE_NUMBERS)
PELMO_LIST_FIELDS(PELMO_DEFINE_POINTERS)
PELMO_BLOCK_FIELDS(PELMO_DEFINE_BLOCK)
#undef PELMO_DEFINE_BLOCK
#undef PELMO_DEFINE_POINTERS
#undef PELMO_DEFINE_NUMBERS
#undef PELMO_DEFINE_LIST

#define PELMO_DEFINE_FIELD(word, Value, Out, addField, updateField, readField)                     \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) {    \
        return addField(msg, name, value, id);                                                     \
    }                                                                                              \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) { \
        return updateField(msg, name, value, id);                                                  \
    }                                                                                              \
    pelmoStatus pelmoMsg_Get##word(const pelmoMsg* msg, const char* name, Out* out, uint16_t id) { \
        return readField(msgForReading(msg), name, out, id);                                       \
    }
PELMO_DEFINE_FIELD(DateTime,
                   const pelmoMsgDateTime*,
                   pelmoMsgDateTime,
                   addDateTime,
                   writeDateTime<pelmoMsg_UpdateField>,
                   readDateTime)
PELMO_DEFINE_FIELD(String, const char*, const char*, addText, updateText, readText)
PELMO_DEFINE_FIELD(Msg,
                   pelmoMsg*,
                   pelmoMsg*,
                   writeMessage<pelmoMsg_AddField>,
                   writeMessage<pelmoMsg_UpdateField>,
                   readMessage)
PELMO_DEFINE_FIELD(Subject,
                   const uint8_t*,
                   const uint8_t*,
                   writeSubject<pelmoMsg_AddField>,
                   writeSubject<pelmoMsg_UpdateField>,
                   readSubject)
PELMO_DEFINE_FIELD(SubjectText,
                   const char*,
                   const char*,
                   writeSubjectText<pelmoMsg_AddField>,
                   writeSubjectText<pelmoMsg_UpdateField>,
                   readSubjectText)
#undef PELMO_DEFINE_FIELD

pelmoStatus pelmoMsg_AddStringN(
    pelmoMsg* msg, const char* name, const char* text, size_t length, uint16_t id) {
    return writeTextN(pelmoMsg_AddField, msg, name, text, length, id);
}

pelmoStatus pelmoMsg_UpdateStringN(
    pelmoMsg* msg, const char* name, const char* text, size_t length, uint16_t id) {
    return writeTextN(pelmoMsg_UpdateField, msg, name, text, length, id);
}

pelmoStatus pelmoMsg_GetStringN(
    const pelmoMsg* msg, const char* name, const char** out, size_t* outLength, uint16_t id) {
    return readTextN(msgForReading(msg), name, out, outLength, id);
}

#define PELMO_DEFINE_EXACT(word, type, Value, member)                                        \
    pelmoStatus pelmoMsg_Get##word##Exact(const pelmoMsg* msg, const char* name, Value* out, \
                                          uint16_t id) {                                     \
        return readScalar<type, readExactly>(msgForReading(msg), name, out,                  \
                                             &pelmoFieldData::member, id);                   \
    }
PELMO_NUMBER_FIELDS(PELMO_DEFINE_EXACT)
#undef PELMO_DEFINE_EXACT

const char* msgText(pelmoMsg* msg, const char* name) {
    const char* text = nullptr;
    if (pelmoMsg_GetString(msg, name, &text, 0) != kStatusSuccess) return nullptr;
    return text != nullptr ? text : "";
}

pelmoStatus pelmoMsg_AddNone(pelmoMsg* msg, const char* name, uint16_t id) {
    pelmoMsgField field;
    field.name = name;
    field.id = id;
    field.type = FIELD_NONE;
    return pelmoMsg_AddField(msg, &field);
}
