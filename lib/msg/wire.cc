#include "lib/msg/wire.h"

#include "lib/base/bytes.h"

uint8_t wireApplicationType(uint8_t wireType, uint8_t sizeByte) {
    const auto byWidth = [sizeByte](uint8_t one, uint8_t two, uint8_t four, uint8_t eight) {
        switch (sizeByte) {
            case 1:
                return one;
            case 2:
                return two;
            case 4:
                return four;
            case 8:
                return eight;
            default:
                return uint8_t{FIELD_BAD};
        }
    };
    switch (wireType) {
        case WIRE_INT:
        case FIELD_I8:
        case FIELD_I16:
        case FIELD_I32:
        case FIELD_I64:
            return byWidth(FIELD_I8, FIELD_I16, FIELD_I32, FIELD_I64);
        case WIRE_UINT:
        case FIELD_U8:
        case FIELD_U16:
        case FIELD_U32:
        case FIELD_U64:
            return byWidth(FIELD_U8, FIELD_U16, FIELD_U32, FIELD_U64);
        case WIRE_FLOAT:
        case FIELD_F32:
        case FIELD_F64:
            return byWidth(FIELD_BAD, FIELD_BAD, FIELD_F32, FIELD_F64);
        case WIRE_NETINT:
        case FIELD_IPPORT16:
        case FIELD_IPADDR32:
            return byWidth(FIELD_BAD, FIELD_IPPORT16, FIELD_IPADDR32, FIELD_BAD);
        default:
            return wireType;
    }
}

pelmoStatus writeSizePrefix(pelmoWriteCursor* cursor, uint64_t value) {
    if (cursor == nullptr) return kStatusInvalidArgument;
    if (value > UINT32_MAX - 4) return kStatusInvalidSize;
    const uint32_t prefixBytes = sizePrefixBytes(value);
    if (prefixBytes > writeRoom(*cursor)) return kStatusNoMemory;

    if (prefixBytes == 1) {
        *cursor->at = static_cast<uint8_t>(value);
    } else if (prefixBytes == 3) {
        *cursor->at = kSizeClass16;
        storeBe16At(cursor->at + 1, static_cast<uint16_t>(value + 2));
    } else {
        *cursor->at = kSizeClass32;
        storeBe32At(cursor->at + 1, static_cast<uint32_t>(value + 4));
    }
    cursor->at += prefixBytes;
    return kStatusSuccess;
}

pelmoStatus readSizePrefix(pelmoReadCursor* cursor, uint32_t* out) {
    if (cursor == nullptr || out == nullptr) return kStatusInvalidArgument;
    if (readLeft(*cursor) < 1) return kStatusCorruptMessage;
    const uint8_t sizeClass = *cursor->at;
    if (sizeClass < kFirstLongSizeClass) {
        ++cursor->at;
        *out = sizeClass;
        return kStatusSuccess;
    }
    if (sizeClass != kSizeClass16 && sizeClass != kSizeClass32) return kStatusInvalidSize;

    const uint32_t ownBytes = sizeClass == kSizeClass16 ? 2 : 4;
    if (readLeft(*cursor) < 1 + ownBytes) return kStatusCorruptMessage;
    const uint8_t* word = cursor->at + 1;
    const uint32_t counted = ownBytes == 2 ? loadBe16At(word) : loadBe32At(word);
    if (counted < ownBytes) return kStatusCorruptMessage;
    cursor->at += 1 + ownBytes;
    *out = counted - ownBytes;
    return kStatusSuccess;
}

pelmoStatus readValueLength(pelmoReadCursor& cursor, uint32_t& length) {
    const pelmoStatus status = readSizePrefix(&cursor, &length);
    if (status != kStatusSuccess) return status;
    return length <= readLeft(cursor) ? kStatusSuccess : kStatusCorruptMessage;
}

std::span<const uint8_t> wireValueBytes(const uint8_t* type, const uint8_t* end) {
    pelmoReadCursor value{type + 1, end};
    uint32_t sizeBytes = 0;
    if (readValueLength(value, sizeBytes) != kStatusSuccess) return {type + 1, end};
    return {value.at, sizeBytes};
}
