// Additions. A record is written after the image, which is extended over it only on success.

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/containers/i32map.h"
#include "lib/msg/buffer.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_place.h"
#include "lib/msg/trace_ops.h"
#include "lib/msg/wire.h"

namespace {

bool needsData(uint8_t type) {
    switch (type) {
        case FIELD_MSG:
        case FIELD_OPAQUE:
        case FIELD_STRING:
        case FIELD_XML:
        case FIELD_STRINGARRAY:
        case FIELD_MSGARRAY:
        case FIELD_F32ARRAY:
        case FIELD_F64ARRAY:
            return true;
        default:
            return type >= FIELD_I8ARRAY && type <= FIELD_U64ARRAY;
    }
}

pelmoStatus addMessageSize(pelmoMsg* value, uint64_t& size) {
    uint32_t bytes = 0;
    const pelmoStatus status = fieldMessageSize(value, bytes);
    if (status == kStatusSuccess) size += bytes;
    return status;
}

constexpr uint32_t kCountBytes = 4;

pelmoStatus stringArraySize(const pelmoMsgField& field, uint64_t& size) {
    const auto* texts = static_cast<const char* const*>(field.data.pointer);
    size = kCountBytes;
    for (uint32_t i = 0; i < field.count; ++i) {
        if (texts[i] == nullptr) return kStatusInvalidArgument;
        size += std::strlen(texts[i]) + 1;
    }
    return kStatusSuccess;
}

pelmoStatus messageArraySize(const pelmoMsgField& field, uint64_t& size) {
    const auto* messages = static_cast<pelmoMsg* const*>(field.data.pointer);
    size = kCountBytes;
    for (uint32_t i = 0; i < field.count; ++i) {
        const pelmoStatus status = addMessageSize(messages[i], size);
        if (status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

pelmoMsg* asMessage(const void* data) {
    return static_cast<pelmoMsg*>(const_cast<void*>(data));
}

pelmoStatus sizeByType(const pelmoMsgField& field, uint64_t& size) {
    switch (field.type) {
        case FIELD_OPAQUE:
        case FIELD_NONE:
            size = 0;
            return kStatusSuccess;
        case FIELD_STRING:
            size = std::strlen(static_cast<const char*>(field.data.pointer)) + 1;
            return kStatusSuccess;
        case FIELD_MSG:
            size = 0;
            return addMessageSize(asMessage(field.data.pointer), size);
        case FIELD_STRINGARRAY:
            return stringArraySize(field, size);
        case FIELD_MSGARRAY:
            return messageArraySize(field, size);
        default:
            return kStatusInvalidSize;
    }
}

uint8_t* writeName(uint8_t* at, const pelmoMsgField& field, uint32_t nameSize) {
    *at++ = static_cast<uint8_t>(nameSize + (field.id != 0 ? kIdBytes : 0));
    copyShort(at, field.name, nameSize);
    at += nameSize;
    if (field.id != 0) {
        storeBe16At(at, field.id);
        at += kIdBytes;
    }
    return at;
}

// An application's encoder may leave the cursor anywhere, so its position is checked.
pelmoStatus encodeOnce(pelmoMsg* msg,
                       uint32_t typeOffset,
                       const pelmoMsgField& field,
                       uint32_t& endOffset) {
    uint8_t* image = msgImage(msg);
    uint8_t* value = image + typeOffset + 1;
    value[-1] = field.type;
    pelmoWriteCursor cursor{value, image + msg->capacity};
    const pelmoStatus status = fieldEncoders[field.type](&cursor, &field);
    if (status != kStatusSuccess) return status;
    if (cursor.at < value || cursor.at > cursor.end) return kStatusEncoderFailed;
    endOffset = static_cast<uint32_t>(cursor.at - image);
    return kStatusSuccess;
}

pelmoStatus indexAppended(pelmoMsg* msg,
                          const pelmoMsgField& field,
                          uint32_t nameSize,
                          uint32_t recordOffset) {
    if (field.id != 0) {
        const pelmoStatus status = i32mapSet(msg->idMap, field.id, msg->fieldCount);
        if (status != kStatusSuccess) return status;
    }
    msg->index[msg->fieldCount++] = {.nameOffset = recordOffset + 1,
                                     .nameSize = nameSize,
                                     .nameAreaSize = nameSize + (field.id != 0 ? kIdBytes : 0),
                                     .id = field.id};
    return kStatusSuccess;
}

pelmoStatus checkField(pelmoMsgField& field, uint32_t nameSize) {
    if (fieldEncoders[field.type] == nullptr) return kStatusInvalidType;
    if (nameSize > kMaxNameSize) return kStatusInvalidName;
    if (field.name == nullptr && field.id != 0) return kStatusNotPermitted;
    if (field.count == 0) return kStatusInvalidFieldCount;
    if (needsData(field.type) && field.data.pointer == nullptr) return kStatusInvalidArgument;
    return fieldWorkOutSize(field);
}

pelmoStatus recordNeed(const pelmoMsgField& field, uint32_t nameSize, uint64_t& need) {
    const uint64_t valueBytes = fieldValueBytes(field);
    if (valueBytes > kMaxValueBytes) return kStatusInvalidSize;
    const uint32_t prefixBytes = field.type == FIELD_MSG ? 1 : sizePrefixBytes(valueBytes);
    need = nameSize + (field.id != 0 ? kIdBytes : 0) + valueBytes + prefixBytes + 2;
    return kStatusSuccess;
}

pelmoStatus appendRecord(pelmoMsg* msg, const pelmoMsgField& field, uint32_t nameSize) {
    uint64_t need = 0;
    pelmoStatus status = recordNeed(field, nameSize, need);
    if (status == kStatusSuccess) status = msgReserve(msg, need);
    if (status != kStatusSuccess) return status;
    const uint8_t* type = writeName(msgImage(msg) + msg->length, field, nameSize);
    const auto typeOffset = static_cast<uint32_t>(type - msgImage(msg));
    return msgEncodeAt(msg, typeOffset, field, msg->length);
}

pelmoStatus addChecked(pelmoMsg* msg, const pelmoMsgField& field, uint32_t nameSize) {
    if (fieldContains(field, msg)) return kStatusNotPermitted;
    if (field.id != 0 && msg->idMap != nullptr &&
        i32mapFind(msg->idMap, field.id, nullptr) == kStatusSuccess) {
        return kStatusIdInUse;
    }
    pelmoStatus status = msgIndexReserve(msg);
    if (status == kStatusSuccess && field.id != 0) status = msgIdMapReserve(msg);
    if (status != kStatusSuccess) return status;
    const uint32_t recordOffset = msg->length;
    status = appendRecord(msg, field, nameSize);
    if (status != kStatusSuccess) return status;
    status = indexAppended(msg, field, nameSize, recordOffset);
    if (status != kStatusSuccess) msg->length = recordOffset;
    return status;
}

}  // namespace

pelmoStatus fieldMessageSize(pelmoMsg* value, uint32_t& size) {
    const pelmoStatus status = pelmoMsg_GetByteSize(value, &size);
    const bool isKnown = status == kStatusSuccess || status == kStatusNoMemory;
    return isKnown ? status : kStatusInvalidArgument;
}

uint64_t fieldValueBytes(const pelmoMsgField& field) {
    const bool sizeIsAll = field.type == FIELD_STRINGARRAY || field.type == FIELD_MSGARRAY;
    const uint64_t total = sizeIsAll ? field.size : uint64_t{field.size} * field.count;
    if (field.type != FIELD_XML) return total;
    // Data that doesn't compress grows: the compressor's bound, and room for both prefixes.
    return static_cast<uint64_t>(1.001 * static_cast<double>(total) + 12 + 10);
}

pelmoStatus fieldWorkOutSize(pelmoMsgField& field) {
    if (field.size != 0) return kStatusSuccess;
    if (field.data.pointer == nullptr && needsData(field.type)) return kStatusInvalidArgument;
    uint64_t size = 0;
    const pelmoStatus status = sizeByType(field, size);
    if (status != kStatusSuccess) return status;
    if (size > kMaxValueBytes) return kStatusInvalidSize;
    field.size = static_cast<uint32_t>(size);
    return kStatusSuccess;
}

bool fieldContains(const pelmoMsgField& field, const pelmoMsg* msg) {
    if (field.type == FIELD_MSG) return field.data.pointer == msg;
    if (field.type != FIELD_MSGARRAY || field.data.pointer == nullptr) return false;
    const auto* messages = static_cast<pelmoMsg* const*>(field.data.pointer);
    for (uint32_t i = 0; i < field.count; ++i) {
        if (messages[i] == msg) return true;
    }
    return false;
}

pelmoStatus msgCheckField(pelmoMsgField& field) {
    return checkField(field, fieldNameSize(field.name));
}

pelmoStatus msgRecordNeed(const pelmoMsgField& field, uint64_t& need) {
    return recordNeed(field, fieldNameSize(field.name), need);
}

pelmoStatus msgEncodeAt(pelmoMsg* msg,
                        uint32_t typeOffset,
                        const pelmoMsgField& field,
                        uint32_t& endOffset) {
    pelmoStatus status = encodeOnce(msg, typeOffset, field, endOffset);
    if (status != kStatusNoMemory) return status;
    status = msgGrow(msg, msg->capacity);
    if (status != kStatusSuccess) return status;
    return encodeOnce(msg, typeOffset, field, endOffset);
}

pelmoStatus msgAppendRecord(pelmoMsg* msg, const pelmoMsgField& field) {
    return appendRecord(msg, field, fieldNameSize(field.name));
}

pelmoStatus pelmoMsg_AddField(pelmoMsg* msg, const pelmoMsgField* field) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (field == nullptr) return kStatusInvalidField;
    traceLine(kTraceMsgDetail, "pelmoMsg_AddField(%p, %p) type=%d", tracePointer(msg),
              tracePointer(field), field->type);
    pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    pelmoMsgField checked = *field;
    const uint32_t nameSize = fieldNameSize(checked.name);
    status = checkField(checked, nameSize);
    if (status == kStatusSuccess) status = msgMakeWritable(msg);
    if (status != kStatusSuccess) return status;
    return addChecked(msg, checked, nameSize);
}
