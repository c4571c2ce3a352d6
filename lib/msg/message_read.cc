// Reads. The decoder returns the value, and the message keeps what the value points to.

#include <cstring>
#include <span>

#include "lib/msg/buffer.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/msg/wire.h"

namespace {

pelmoStatus keepMessage(pelmoMsg* msg, pelmoMsg* subMessage) {
    msgClearOwned(subMessage);
    const bool room = msgMark(msg).subMessages < kMostSubMessages;
    const pelmoStatus status = !room ? kStatusNoMemory : msgListAdd(msg->subMessages, subMessage);
    if (status != kStatusSuccess) msgRelease(subMessage);
    return status;
}

// Makes an object for a nested message whose first byte is in the image.
pelmoStatus openNested(pelmoMsg* msg, const void* image, pelmoMsg*& out) {
    const auto offset = static_cast<const uint8_t*>(image) - msg->buffer->data;
    pelmoMsg* nested = nullptr;
    pelmoStatus status = msgCreateOverBuffer(&nested, msg->buffer, static_cast<uint32_t>(offset));
    if (status != kStatusSuccess) return status;
    status = keepMessage(msg, nested);
    if (status == kStatusSuccess) out = nested;
    return status;
}

// Replaces the list's pointers into the image by pointers to objects.
pelmoStatus openEach(pelmoMsg* msg, void* list, uint32_t count) {
    auto* slot = static_cast<uint8_t*>(list);
    for (uint32_t i = 0; i < count; ++i, slot += sizeof(void*)) {
        const void* image = nullptr;
        std::memcpy(&image, slot, sizeof image);
        pelmoMsg* nested = nullptr;
        const pelmoStatus status = openNested(msg, image, nested);
        if (status != kStatusSuccess) return status;
        std::memcpy(slot, &nested, sizeof nested);
    }
    return kStatusSuccess;
}

pelmoStatus keepInImage(pelmoMsg* msg, pelmoMsgField& field) {
    void* data = const_cast<void*>(field.data.pointer);
    switch (field.type) {
        case FIELD_MSG: {
            // The lengths in the head must be written before the buffer is shared.
            msgFlush(msg);
            pelmoMsg* nested = nullptr;
            const pelmoStatus status = openNested(msg, data, nested);
            field.data.pointer = nested;
            return status;
        }
        case FIELD_MSGARRAY: {
            msgFlush(msg);
            pelmoStatus status = msgKeepBlock(msg, data);
            // Checked first, so that no objects are made for a list that is too long.
            if (field.count > kMostSubMessages) status = kStatusNoMemory;
            return status == kStatusSuccess ? openEach(msg, data, field.count) : status;
        }
        case FIELD_STRINGARRAY: {
            const pelmoStatus status = msgKeepBlock(msg, data);
            if (status == kStatusSuccess) ++msg->bufferRefs;
            return status;
        }
        default:
            ++msg->bufferRefs;
            return kStatusSuccess;
    }
}

// Byte arrays are returned by value like scalars, but their pointer leads into the image.
bool pointsIntoImage(const pelmoMsgField& field) {
    return (field.type == FIELD_I8ARRAY || field.type == FIELD_U8ARRAY) &&
           field.data.pointer != nullptr;
}

pelmoStatus keepData(pelmoMsg* msg, pelmoMsgField& field, pelmoDisposition disposition) {
    void* data = const_cast<void*>(field.data.pointer);
    switch (disposition) {
        case kDataByValue:
            if (pointsIntoImage(field)) ++msg->bufferRefs;
            return kStatusSuccess;
        case kDataOwnedBlock:
            return msgKeepBlock(msg, data);
        case kDataMessage:
            return keepMessage(msg, static_cast<pelmoMsg*>(data));
        case kDataInImage:
            return keepInImage(msg, field);
    }
    return kStatusDecoderFailed;
}

// Null for no name.
const char* nameAt(const pelmoMsg* msg, const FieldIndexEntry& entry) {
    if (entry.nameSize == 0) return nullptr;
    return reinterpret_cast<const char*>(msgImage(msg) + entry.nameOffset);
}

// The checks that every read of a field begins with.
pelmoStatus beginRead(pelmoMsg* msg, const pelmoMsgField* field) {
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (field == nullptr) return kStatusInvalidField;
    return msgParse(msg);
}

}  // namespace

pelmoStatus msgDecodeValue(const uint8_t* type,
                           const uint8_t* end,
                           pelmoMsgField& field,
                           pelmoDisposition& disposition) {
    const pelmoFieldDecoder decode = fieldDecoders[*type];
    if (decode == nullptr) return kStatusInvalidType;
    field.type = *type;
    pelmoReadCursor cursor{type + 1, end};
    return decode(&cursor, &field, &disposition);
}

pelmoStatus msgDecodeField(const pelmoMsg* msg,
                           uint32_t position,
                           pelmoMsgField& field,
                           pelmoDisposition& disposition) {
    const FieldIndexEntry& entry = msg->index[position];
    const uint8_t* image = msgImage(msg);
    field.id = entry.id;
    return msgDecodeValue(image + fieldTypeOffset(entry), image + fieldEndOffset(msg, position),
                          field, disposition);
}

pelmoStatus msgReadField(pelmoMsg* msg,
                         uint32_t position,
                         pelmoMsgField& field,
                         NameWanted nameWanted) {
    pelmoMsgField read;
    const FieldIndexEntry& entry = msg->index[position];
    if (nameWanted == NameWanted::kYes) read.name = nameAt(msg, entry);
    pelmoDisposition disposition = kDataByValue;
    pelmoStatus status = msgDecodeField(msg, position, read, disposition);
    if (status != kStatusSuccess) return status;

    const ReferenceMark before = msgMark(msg);
    status = keepData(msg, read, disposition);
    if (status != kStatusSuccess) {
        msgCutBack(msg, before);
        return status;
    }
    if (read.name != nullptr) ++msg->bufferRefs;
    field = read;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetFieldEx(const pelmoMsg* constMsg,
                                const char* name,
                                pelmoMsgField* field,
                                uint16_t id) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetFieldEx(%p, \"%s\", %p, %u)", tracePointer(msg),
              traceText(name), tracePointer(field), id);
    pelmoStatus status = beginRead(msg, field);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFind(msg, name, id, position);
    if (status != kStatusSuccess) return status;
    return msgReadField(msg, position, *field, NameWanted::kYes);
}

pelmoStatus pelmoMsg_GetFieldByIndex(const pelmoMsg* constMsg,
                                     pelmoMsgField* field,
                                     uint32_t index) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetFieldByIndex(%p, %p, %u)", tracePointer(msg),
              tracePointer(field), index);
    const pelmoStatus status = beginRead(msg, field);
    if (status != kStatusSuccess) return status;
    if (index >= msg->fieldCount) return kStatusNotFound;
    return msgReadField(msg, index, *field, NameWanted::kYes);
}

pelmoStatus pelmoMsg_GetFieldBytes(const pelmoMsg* constMsg, pelmoMsgField* field, uint32_t index) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetFieldBytes(%p, %p, %u)", tracePointer(msg),
              tracePointer(field), index);
    pelmoStatus status = beginRead(msg, field);
    if (status != kStatusSuccess) return status;
    if (index >= msg->fieldCount) return kStatusNotFound;
    const FieldIndexEntry& entry = msg->index[index];
    const uint8_t* type = msgImage(msg) + fieldTypeOffset(entry);
    const uint8_t* const end = msgImage(msg) + fieldEndOffset(msg, index);
    const std::span<const uint8_t> value = wireValueBytes(type, end);
    pelmoMsgField read;
    read.size = static_cast<uint32_t>(value.size());
    read.name = nameAt(msg, entry);
    read.data.pointer = read.size != 0 ? value.data() : nullptr;
    read.id = entry.id;
    read.type = *type;
    if (read.name != nullptr) ++msg->bufferRefs;
    if (read.size != 0) ++msg->bufferRefs;
    *field = read;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_GetFieldInstance(const pelmoMsg* constMsg,
                                      const char* name,
                                      pelmoMsgField* field,
                                      uint32_t instance) {
    pelmoMsg* const msg = msgForReading(constMsg);
    traceLine(kTraceMsgDetail, "pelmoMsg_GetFieldInstance(%p, \"%s\", %p, %u)", tracePointer(msg),
              traceText(name), tracePointer(field), instance);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (field == nullptr) return kStatusInvalidField;
    if (instance == 0) return kStatusInvalidInstance;
    pelmoStatus status = msgParse(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFindInstance(msg, name, instance, position);
    if (status != kStatusSuccess) return status;
    return msgReadField(msg, position, *field, NameWanted::kYes);
}
