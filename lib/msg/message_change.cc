// Changes of an existing field: its value is replaced, or the field is removed.

#include <cstring>

#include "lib/containers/i32map.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/msg/wire.h"

namespace {

// Where a field's type and value are in the image, or will be.
struct Piece {
    uint32_t offset;
    uint32_t end;
};

uint32_t sizeOf(const Piece& piece) {
    return piece.end - piece.offset;
}

// Moves everything after a field from offset `from` to offset `to`. The caller has made room.
void moveTail(pelmoMsg* msg, uint32_t position, uint32_t from, uint32_t to) {
    uint8_t* image = msgImage(msg);
    std::memmove(image + to, image + from, msg->length - from);
    // Unsigned arithmetic wraps, so the same addition moves offsets in both directions.
    const uint32_t shift = to - from;
    msg->length += shift;
    for (uint32_t i = position + 1; i < msg->fieldCount; ++i) {
        msg->index[i].nameOffset += shift;
    }
}

// Values of at most this size are encoded on the stack first, so they need no spare room in the
// image.
constexpr uint32_t kSmallPieceBytes = 32;

pelmoStatus encodeSmall(const pelmoMsgField& field, uint8_t* piece, uint32_t& pieceBytes) {
    piece[0] = field.type;
    pelmoWriteCursor cursor{piece + 1, piece + kSmallPieceBytes};
    const pelmoStatus status = fieldEncoders[field.type](&cursor, &field);
    if (status != kStatusSuccess) return status;
    if (cursor.at < piece + 1 || cursor.at > cursor.end) return kStatusEncoderFailed;
    pieceBytes = static_cast<uint32_t>(cursor.at - piece);
    return kStatusSuccess;
}

pelmoStatus rewriteSmall(pelmoMsg* msg, uint32_t position, const pelmoMsgField& field) {
    uint8_t piece[kSmallPieceBytes];
    uint32_t pieceBytes = 0;
    pelmoStatus status = encodeSmall(field, piece, pieceBytes);
    if (status != kStatusSuccess) return status;

    const Piece old{fieldTypeOffset(msg->index[position]), fieldEndOffset(msg, position)};
    if (pieceBytes > sizeOf(old) && pieceBytes - sizeOf(old) > msg->capacity - msg->length) {
        status = msgReserve(msg, pieceBytes - sizeOf(old));
        if (status != kStatusSuccess) return status;
    }
    if (pieceBytes != sizeOf(old)) moveTail(msg, position, old.end, old.offset + pieceBytes);
    std::memcpy(msgImage(msg) + old.offset, piece, pieceBytes);
    return kStatusSuccess;
}

// A longer value is first written after the image, so that the old value stays intact if that
// fails.
pelmoStatus rewriteLarge(pelmoMsg* msg,
                         uint32_t position,
                         const pelmoMsgField& field,
                         uint64_t need) {
    pelmoStatus status = msgReserve(msg, need + 1);
    if (status != kStatusSuccess) return status;
    Piece fresh{msg->length, 0};
    status = msgEncodeAt(msg, fresh.offset, field, fresh.end);
    if (status != kStatusSuccess) return status;

    const Piece old{fieldTypeOffset(msg->index[position]), fieldEndOffset(msg, position)};
    const uint32_t pieceBytes = sizeOf(fresh);
    if (old.end == msg->length) {
        std::memmove(msgImage(msg) + old.offset, msgImage(msg) + fresh.offset, pieceBytes);
        msg->length = old.offset + pieceBytes;
        return kStatusSuccess;
    }
    if (pieceBytes > sizeOf(old)) {
        // The tail will move up and would overwrite the new value, so the value is moved first.
        const uint32_t shift = pieceBytes - sizeOf(old);
        status = msgReserve(msg, uint64_t{pieceBytes} + shift);
        if (status != kStatusSuccess) return status;
        std::memmove(msgImage(msg) + fresh.offset + shift, msgImage(msg) + fresh.offset,
                     pieceBytes);
        fresh.offset += shift;
    }
    moveTail(msg, position, old.end, old.offset + pieceBytes);
    std::memcpy(msgImage(msg) + old.offset, msgImage(msg) + fresh.offset, pieceBytes);
    return kStatusSuccess;
}

pelmoStatus updateFound(pelmoMsg* msg, uint32_t position, const pelmoMsgField& field) {
    const uint8_t* type = msgImage(msg) + fieldTypeOffset(msg->index[position]);
    if (wireApplicationType(type[0], type[1]) != field.type) return kStatusInvalidType;
    if (fieldEncoders[field.type] == nullptr) return kStatusInvalidType;
    pelmoMsgField sized = field;
    if (sized.size == 0 && sized.type == FIELD_NONE) return kStatusInvalidSize;
    const pelmoStatus status = fieldWorkOutSize(sized);
    if (status != kStatusSuccess) return status;
    if (fieldContains(sized, msg)) return kStatusNotPermitted;
    const uint64_t valueBytes = fieldValueBytes(sized);
    if (valueBytes > kMaxValueBytes) return kStatusInvalidSize;
    const uint64_t need = sizePrefixedLength(valueBytes);
    if (need < kSmallPieceBytes) {
        const pelmoStatus small = rewriteSmall(msg, position, sized);
        // An application's encoder may need more room than the field's size says.
        if (small != kStatusNoMemory) return small;
    }
    return rewriteLarge(msg, position, sized, need);
}

void removeAt(pelmoMsg* msg, uint32_t position) {
    const FieldIndexEntry entry = msg->index[position];
    const uint32_t end = fieldEndOffset(msg, position);
    if (position + 1 == msg->fieldCount) {
        msg->fieldCount = position;
    } else {
        uint8_t* image = msgImage(msg);
        std::memmove(image + fieldRecordOffset(entry), image + end, msg->length - end);
        msg->indexValid = 0;
    }
    msg->length -= end - fieldRecordOffset(entry);
    if (entry.id != 0 && msg->idMap != nullptr) i32mapRemove(msg->idMap, entry.id);
}

pelmoStatus beginChange(pelmoMsg* msg) {
    const pelmoStatus status = msgMakeWritable(msg);
    return status == kStatusSuccess ? msgParse(msg) : status;
}

}  // namespace

pelmoStatus pelmoMsg_UpdateField(pelmoMsg* msg, const pelmoMsgField* field) {
    traceLine(kTraceMsgDetail, "pelmoMsg_UpdateField(%p, %p)", tracePointer(msg),
              tracePointer(field));
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (field == nullptr) return kStatusInvalidField;
    if (field->count == 0) return kStatusInvalidFieldCount;
    pelmoStatus status = beginChange(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFind(msg, field->name, field->id, position);
    if (status == kStatusNotFound) return pelmoMsg_AddField(msg, field);
    if (status != kStatusSuccess) return status;
    return updateFound(msg, position, *field);
}

pelmoStatus pelmoMsg_RemoveFieldEx(pelmoMsg* msg, const char* name, uint16_t id) {
    traceLine(kTraceMsgDetail, "pelmoMsg_RemoveFieldEx(%p, \"%s\", %u)", tracePointer(msg),
              traceText(name), id);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    pelmoStatus status = beginChange(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFind(msg, name, id, position);
    if (status == kStatusSuccess) removeAt(msg, position);
    return status;
}

pelmoStatus pelmoMsg_RemoveFieldInstance(pelmoMsg* msg, const char* name, uint32_t instance) {
    traceLine(kTraceMsgDetail, "pelmoMsg_RemoveFieldInstance(%p, \"%s\", %u)", tracePointer(msg),
              traceText(name), instance);
    if (!msgIsValid(msg)) return kStatusInvalidMessage;
    if (instance == 0) return kStatusInvalidArgument;
    pelmoStatus status = beginChange(msg);
    if (status != kStatusSuccess) return status;
    uint32_t position = 0;
    status = msgFindInstance(msg, name, instance, position);
    if (status == kStatusSuccess) removeAt(msg, position);
    return status;
}
