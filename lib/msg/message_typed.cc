#include "lib/msg/message_typed.h"

#include <cstdlib>
#include <cstring>

#include "lib/containers/subject.h"
#include "lib/msg/codec.h"
#include "lib/msg/message_parts.h"

namespace {

using FieldWriter = pelmoStatus (*)(pelmoMsg* msg, const pelmoMsgField* field);

// What a row writes: the member of the data that holds the value, where it isn't a pointer.
struct FieldKind {
    uint8_t type;
    uint32_t size;
};

template <typename Value>
pelmoStatus writeScalar(FieldWriter write,
                        pelmoMsg* msg,
                        const char* name,
                        Value value,
                        Value FieldData::*member,
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

// What a field of another type than asked for gives.
pelmoStatus convertTo(pelmoMsg* msg, uint8_t type, pelmoMsgField& field) {
    const FieldConverter convert = fieldConverters[field.type];
    if (convert == nullptr) return kStatusConversionFailed;
    Disposition disposition = kDataByValue;
    const pelmoStatus status = convert(field, type, disposition);
    if (status != kStatusSuccess || disposition != kDataOwnedBlock) return status;
    return msgKeepBlock(msg, const_cast<void*>(field.data.pointer));
}

pelmoStatus findAndRead(pelmoMsg* msg, const char* name, uint16_t id, pelmoMsgField& field) {
    pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFind(msg, name, id, position);
    if (status != kStatusSuccess) return status;
    return msgReadField(msg, position, field, NameWanted::kNo);
}

// Reads a field as that type. What the read left with the message goes again if it fails.
// `otherType` takes over where the field's type isn't the one asked for.
template <typename OtherType>
pelmoStatus readAs(pelmoMsg* msg,
                   const char* name,
                   uint16_t id,
                   uint8_t type,
                   pelmoMsgField& field,
                   OtherType otherType) {
    const ReferenceMark before = msgMark(msg);
    pelmoStatus status = findAndRead(msg, name, id, field);
    if (status != kStatusSuccess || field.type == type) return status;
    status = otherType(msg, type, field);
    if (status != kStatusSuccess) msgCutBack(msg, before);
    return status;
}

pelmoStatus noWay(pelmoMsg*, uint8_t, pelmoMsgField&) {
    return kStatusConversionFailed;
}

pelmoStatus noWayFromLists(pelmoMsg*, uint8_t, pelmoMsgField&) {
    return kStatusInvalidArgument;
}

template <typename Value>
pelmoStatus readScalar(pelmoMsg* msg,
                       const char* name,
                       Value* out,
                       Value FieldData::*member,
                       uint8_t type,
                       uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    pelmoMsgField field;
    const pelmoStatus status = readAs(msg, name, id, type, field, convertTo);
    if (status == kStatusSuccess) *out = field.data.*member;
    return status;
}

// A pointer and a number, which is of elements or of bytes.
template <typename Value, typename OtherType>
pelmoStatus readList(pelmoMsg* msg,
                     const char* name,
                     Value** out,
                     uint32_t* outNumber,
                     uint32_t pelmoMsgField::*number,
                     uint8_t type,
                     uint16_t id,
                     OtherType otherType) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr || outNumber == nullptr) return kStatusInvalidArgument;
    pelmoMsgField field;
    const pelmoStatus status = readAs(msg, name, id, type, field, otherType);
    if (status != kStatusSuccess) return status;
    *out = static_cast<Value*>(field.data.pointer);
    *outNumber = field.*number;
    return kStatusSuccess;
}

// A text without its NUL is handed out as a copy with one.
pelmoStatus terminate(pelmoMsg* msg, pelmoMsgField& field) {
    const auto* text = static_cast<const char*>(field.data.pointer);
    if (text == nullptr || field.size == 0 || text[field.size - 1] == '\0') return kStatusSuccess;
    auto* copy = static_cast<char*>(std::malloc(size_t{field.size} + 1));
    if (copy == nullptr) return kStatusNoMemory;
    std::memcpy(copy, text, field.size);
    copy[field.size] = '\0';
    field.data.pointer = copy;
    return msgKeepBlock(msg, copy);
}

pelmoStatus readText(pelmoMsg* msg, const char* name, const char** out, uint16_t id) {
    const ReferenceMark before = msgMark(msg);
    pelmoMsgField field;
    pelmoStatus status = readAs(msg, name, id, FIELD_STRING, field, convertTo);
    if (status == kStatusSuccess) status = terminate(msg, field);
    if (status != kStatusSuccess) {
        msgCutBack(msg, before);
        return status;
    }
    *out = static_cast<const char*>(field.data.pointer);
    return kStatusSuccess;
}

pelmoStatus writeMessage(
    FieldWriter write, pelmoMsg* msg, const char* name, pelmoMsg* value, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    uint32_t size = 0;
    const pelmoStatus status = fieldMessageSize(value, size);
    if (status != kStatusSuccess) return status;
    return writePointer(write, msg, name, value, 1, {FIELD_MSG, size}, id);
}

pelmoStatus writeSubject(
    FieldWriter write, pelmoMsg* msg, const char* name, const uint8_t* subject, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (subject == nullptr) return kStatusInvalidArgument;
    const auto size = static_cast<uint32_t>(subjectLength(subject));
    return writePointer(write, msg, name, subject, 1, {FIELD_SUBJECT, size}, id);
}

using SubjectWriter = pelmoStatus (*)(pelmoMsg* msg,
                                      const char* name,
                                      const uint8_t* subject,
                                      uint16_t id);

pelmoStatus writeSubjectText(
    SubjectWriter write, pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (text == nullptr) return kStatusInvalidArgument;
    uint8_t subject[kSubjectMaxBytes];
    if (subjectFromText(subject, sizeof subject, text) < 1) return kStatusInvalidSubject;
    return write(msg, name, subject, id);
}

constexpr FieldKind kDateTimeKind{FIELD_DATETIME, 12};

}  // namespace

#define PELMO_DEFINE_SCALAR(word, type, Value, size, member)                                       \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) {    \
        return writeScalar(pelmoMsg_AddField, msg, name, value, &FieldData::member, {type, size},  \
                           id);                                                                    \
    }                                                                                              \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value value, uint16_t id) { \
        return writeScalar(pelmoMsg_UpdateField, msg, name, value, &FieldData::member,             \
                           {type, size}, id);                                                      \
    }                                                                                              \
    pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name, Value* out, uint16_t id) {     \
        return readScalar(msg, name, out, &FieldData::member, type, id);                           \
    }
PELMO_SCALAR_FIELDS(PELMO_DEFINE_SCALAR)
#undef PELMO_DEFINE_SCALAR

#define PELMO_DEFINE_ARRAY(word, type, Value, size, otherType)                                 \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value const* values,       \
                                   uint32_t count, uint16_t id) {                              \
        return writePointer(pelmoMsg_AddField, msg, name, values, count, {type, size}, id);    \
    }                                                                                          \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value const* values,    \
                                      uint32_t count, uint16_t id) {                           \
        return writePointer(pelmoMsg_UpdateField, msg, name, values, count, {type, size}, id); \
    }                                                                                          \
    pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name, Value const** outValues,   \
                                   uint32_t* outCount, uint16_t id) {                          \
        return readList(msg, name, outValues, outCount, &pelmoMsgField::count, type, id,       \
                        otherType);                                                            \
    }
#define PELMO_DEFINE_NUMBERS(word, type, Value, size) \
    PELMO_DEFINE_ARRAY(word, type, Value, size, convertTo)
#define PELMO_DEFINE_LIST(word, type, Value, size) \
    PELMO_DEFINE_ARRAY(word, type, Value, size, noWayFromLists)
PELMO_NUMBER_ARRAY_FIELDS(PELMO_DEFINE_NUMBERS)
PELMO_LIST_FIELDS(PELMO_DEFINE_LIST)
#undef PELMO_DEFINE_LIST
#undef PELMO_DEFINE_NUMBERS
#undef PELMO_DEFINE_ARRAY

#define PELMO_DEFINE_BLOCK(word, type)                                                        \
    pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, const void* bytes,        \
                                   uint32_t size, uint16_t id) {                              \
        return writePointer(pelmoMsg_AddField, msg, name, bytes, 1, {type, size}, id);        \
    }                                                                                         \
    pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, const void* bytes,     \
                                      uint32_t size, uint16_t id) {                           \
        return writePointer(pelmoMsg_UpdateField, msg, name, bytes, 1, {type, size}, id);     \
    }                                                                                         \
    pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name, const void** outBytes,    \
                                   uint32_t* outSize, uint16_t id) {                          \
        return readList(msg, name, outBytes, outSize, &pelmoMsgField::size, type, id, noWay); \
    }
PELMO_BLOCK_FIELDS(PELMO_DEFINE_BLOCK)
#undef PELMO_DEFINE_BLOCK

pelmoStatus pelmoMsg_AddDateTime(pelmoMsg* msg,
                                 const char* name,
                                 const pelmoMsgDateTime* value,
                                 uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (value == nullptr) return kStatusInvalidArgument;
    return writeScalar(pelmoMsg_AddField, msg, name, *value, &FieldData::dateTime, kDateTimeKind,
                       id);
}

pelmoStatus pelmoMsg_UpdateDateTime(pelmoMsg* msg,
                                    const char* name,
                                    const pelmoMsgDateTime* value,
                                    uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (value == nullptr) return kStatusInvalidArgument;
    return writeScalar(pelmoMsg_UpdateField, msg, name, *value, &FieldData::dateTime, kDateTimeKind,
                       id);
}

pelmoStatus pelmoMsg_GetDateTime(pelmoMsg* msg,
                                 const char* name,
                                 pelmoMsgDateTime* out,
                                 uint16_t id) {
    return readScalar(msg, name, out, &FieldData::dateTime, FIELD_DATETIME, id);
}

pelmoStatus pelmoMsg_AddString(pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    return writePointer(pelmoMsg_AddField, msg, name, text, 1, {FIELD_STRING, 0}, id);
}

pelmoStatus pelmoMsg_UpdateString(pelmoMsg* msg, const char* name, const char* text, uint16_t id) {
    return writePointer(pelmoMsg_UpdateField, msg, name, text, 1, {FIELD_STRING, 0}, id);
}

pelmoStatus pelmoMsg_GetString(pelmoMsg* msg, const char* name, const char** out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    return readText(msg, name, out, id);
}

pelmoStatus pelmoMsg_AddMsg(pelmoMsg* msg, const char* name, pelmoMsg* value, uint16_t id) {
    return writeMessage(pelmoMsg_AddField, msg, name, value, id);
}

pelmoStatus pelmoMsg_UpdateMsg(pelmoMsg* msg, const char* name, pelmoMsg* value, uint16_t id) {
    return writeMessage(pelmoMsg_UpdateField, msg, name, value, id);
}

pelmoStatus pelmoMsg_GetMsg(pelmoMsg* msg, const char* name, pelmoMsg** out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    pelmoMsgField field;
    const pelmoStatus status = readAs(msg, name, id, FIELD_MSG, field, noWay);
    if (status != kStatusSuccess) return status;
    // Reads hand out an object, whose image alone is constant.
    *out = static_cast<pelmoMsg*>(const_cast<void*>(field.data.pointer));
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_AddSubject(pelmoMsg* msg,
                                const char* name,
                                const uint8_t* subject,
                                uint16_t id) {
    return writeSubject(pelmoMsg_AddField, msg, name, subject, id);
}

pelmoStatus pelmoMsg_UpdateSubject(pelmoMsg* msg,
                                   const char* name,
                                   const uint8_t* subject,
                                   uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    // The send subject may move; opening the envelope finds it anew.
    if (name != nullptr && std::strcmp(name, "sub") == 0) msg->sendSubjectOffset = 0;
    return writeSubject(pelmoMsg_UpdateField, msg, name, subject, id);
}

pelmoStatus pelmoMsg_GetSubject(pelmoMsg* msg, const char* name, const uint8_t** out, uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    pelmoMsgField field;
    const pelmoStatus status = readAs(msg, name, id, FIELD_SUBJECT, field, convertTo);
    if (status == kStatusSuccess) *out = static_cast<const uint8_t*>(field.data.pointer);
    return status;
}

pelmoStatus pelmoMsg_AddSubjectText(pelmoMsg* msg,
                                    const char* name,
                                    const char* text,
                                    uint16_t id) {
    return writeSubjectText(pelmoMsg_AddSubject, msg, name, text, id);
}

pelmoStatus pelmoMsg_UpdateSubjectText(pelmoMsg* msg,
                                       const char* name,
                                       const char* text,
                                       uint16_t id) {
    return writeSubjectText(pelmoMsg_UpdateSubject, msg, name, text, id);
}

pelmoStatus pelmoMsg_GetSubjectText(pelmoMsg* msg,
                                    const char* name,
                                    const char** out,
                                    uint16_t id) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (out == nullptr) return kStatusInvalidArgument;
    const ReferenceMark before = msgMark(msg);
    pelmoMsgField field;
    pelmoStatus status = readAs(msg, name, id, FIELD_SUBJECT, field, noWay);
    if (status == kStatusSuccess) status = convertTo(msg, FIELD_STRING, field);
    if (status != kStatusSuccess) {
        msgCutBack(msg, before);
        return status;
    }
    *out = static_cast<const char*>(field.data.pointer);
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_AddNone(pelmoMsg* msg, const char* name, uint16_t id) {
    pelmoMsgField field;
    field.name = name;
    field.id = id;
    field.type = FIELD_NONE;
    return pelmoMsg_AddField(msg, &field);
}
