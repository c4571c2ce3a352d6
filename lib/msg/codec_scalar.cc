// Scalars (lib/msg/scalar.h), dates, and the field that has no value.

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/scalar.h"
#include "lib/msg/wire.h"

namespace {

// A size other than the type's would corrupt the image, so it is refused. The size of a bool is
// ignored, since a bool is wider in the application than on the wire.
template <uint8_t kType, typename Value>
pelmoStatus encodeScalar(pelmoWriteCursor& cursor, const pelmoMsgField& field, Value value) {
    constexpr uint32_t kValueBytes = kScalarBytes<kType, Value>;
    constexpr uint8_t kWireType = scalarWireType(kType);
    if (kType != FIELD_BOOL && field.size != kValueBytes) return kStatusInvalidArgument;
    if (writeRoom(cursor) < 1 + kValueBytes) return kStatusNoMemory;
    if constexpr (kWireType != kType) cursor.at[-1] = kWireType;
    cursor.at[0] = kValueBytes;
    storeScalar<kType>(cursor.at + 1, value);
    cursor.at += 1 + kValueBytes;
    return kStatusSuccess;
}

// Reads the size byte and checks that the value's bytes are there. The field gets the application's
// type for that width.
pelmoStatus openWord(pelmoReadCursor& cursor, pelmoMsgField& field) {
    if (readLeft(cursor) < 1) return kStatusCorruptMessage;
    const uint8_t width = *cursor.at;
    const uint8_t type = wireApplicationType(field.type, width);
    if (type == FIELD_BAD) return kStatusInvalidSize;
    if (readLeft(cursor) < uint64_t{1} + width) return kStatusCorruptMessage;
    field.type = type;
    field.size = width;
    field.count = 1;
    ++cursor.at;
    return kStatusSuccess;
}

}  // namespace

#define PELMO_DEFINE_ENCODER(word, type, Value, size, member)        \
    PELMO_ENCODER_BODY(encode##word) {                               \
        return encodeScalar<type>(cursor, field, field.data.member); \
    }
PELMO_SCALAR_FIELDS(PELMO_DEFINE_ENCODER)
#undef PELMO_DEFINE_ENCODER

PELMO_ENCODER_BODY(encodeNone) {
    if (writeRoom(cursor) < 1) return kStatusNoMemory;
    *cursor.at++ = 0;
    return kStatusSuccess;
}

PELMO_ENCODER_BODY(encodeDateTime) {
    if (field.size < kDateTimeFieldBytes) return kStatusInvalidArgument;
    if (!dateTimeFits(field.data.dateTime)) return kStatusInvalidArgument;
    if (writeRoom(cursor) < 1 + kDateTimeWireBytes) return kStatusNoMemory;
    cursor.at[0] = kDateTimeWireBytes;
    storeDateTime(cursor.at + 1, field.data.dateTime);
    cursor.at += 1 + kDateTimeWireBytes;
    return kStatusSuccess;
}

// One decoder serves all numbers: signed, unsigned and float values of one width are the same word.
PELMO_DECODER_BODY(decodeWord) {
    const pelmoStatus status = openWord(cursor, field);
    if (status != kStatusSuccess) return status;
    switch (field.size) {
        case 1:
            field.data.u8 = *cursor.at;
            break;
        case 2:
            field.data.u16 = loadBe16At(cursor.at);
            break;
        case 4:
            field.data.u32 = loadBe32At(cursor.at);
            break;
        default:
            field.data.u64 = loadBe64At(cursor.at);
            break;
    }
    cursor.at += field.size;
    disposition = kDataByValue;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeNetInt) {
    const pelmoStatus status = openWord(cursor, field);
    if (status != kStatusSuccess) return status;
    if (field.size == sizeof field.data.ipPort16) {
        field.data.ipPort16 = loadNet16At(cursor.at);
    } else {
        field.data.ipAddr32 = loadNet32At(cursor.at);
    }
    cursor.at += field.size;
    disposition = kDataByValue;
    return kStatusSuccess;
}

// The size byte isn't tested. A field that ends with it has no value and reads as false.
PELMO_DECODER_BODY(decodeBool) {
    if (readLeft(cursor) < 1) return kStatusCorruptMessage;
    const bool present = readLeft(cursor) >= 2;
    field.size = sizeof field.data.boolean;
    field.count = 1;
    field.data.boolean = present ? cursor.at[1] : 0;
    cursor.at += present ? 2 : 1;
    disposition = kDataByValue;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeNone) {
    if (readLeft(cursor) < 1) return kStatusCorruptMessage;
    field.size = 0;
    field.count = 1;
    ++cursor.at;
    disposition = kDataByValue;
    return kStatusSuccess;
}

PELMO_DECODER_BODY(decodeDateTime) {
    if (readLeft(cursor) < 1) return kStatusCorruptMessage;
    if (*cursor.at != kDateTimeWireBytes) return kStatusInvalidSize;
    if (readLeft(cursor) < 1 + kDateTimeWireBytes) return kStatusCorruptMessage;

    field.size = kDateTimeFieldBytes;
    field.count = 1;
    field.data.dateTime = loadDateTime(cursor.at + 1);
    cursor.at += 1 + kDateTimeWireBytes;
    disposition = kDataByValue;
    return kStatusSuccess;
}
