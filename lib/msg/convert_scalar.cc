// Conversions of numbers, bools, ports and addresses.

#include <cinttypes>
#include <cmath>
#include <cstring>

#include "lib/base/bytes.h"
#include "lib/base/text.h"
#include "lib/msg/convert.h"

namespace {

constexpr size_t kNumberTextBytes = 32;
constexpr uint32_t kIpTextBytes = 16;

template <typename Value>
Value load(const void* at) {
    Value value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

template <typename Value>
void store(void* at, Value value) {
    std::memcpy(at, &value, sizeof value);
}

constexpr double kTwoTo31 = 2147483648.0;
constexpr double kTwoTo63 = 9223372036854775808.0;

int32_t truncate32(double real) {
    return real > -kTwoTo31 - 1 && real < kTwoTo31 ? static_cast<int32_t>(real) : INT32_MIN;
}

int64_t truncate64(double real) {
    return real >= -kTwoTo63 && real < kTwoTo63 ? static_cast<int64_t>(real) : INT64_MIN;
}

// A float is truncated to 32 bits first, except for targets that hold more.
int64_t integerFor(uint8_t type, const Number& number) {
    if (!number.isFloat) return number.integer;
    const bool wide = type == FIELD_U32 || type == FIELD_I64 || type == FIELD_U64;
    return wide ? truncate64(number.real) : truncate32(number.real);
}

pelmoStatus becomeNumber(pelmoMsgField& field, uint8_t targetType, const Number& number) {
    field.size = numberBytes(targetType);
    field.count = 1;
    field.type = targetType;
    storeNumber(targetType, &field.data, number);
    return kStatusSuccess;
}

void becomeBool(pelmoMsgField& field, bool value) {
    field.size = sizeof field.data.boolean;
    field.count = 1;
    field.type = FIELD_BOOL;
    field.data.boolean = value ? 1 : 0;
}

void numberToText(const pelmoMsgField& field, const Number& number, char* text) {
    if (number.isFloat) {
        boundedFormat(text, kNumberTextBytes, "%g", number.real);
    } else if (field.type == FIELD_U64) {
        boundedFormat(text, kNumberTextBytes, "%" PRIu64, field.data.u64);
    } else {
        boundedFormat(text, kNumberTextBytes, "%" PRId64, number.integer);
    }
}

}  // namespace

uint32_t numberBytes(uint8_t type) {
    switch (type) {
        case FIELD_I8:
        case FIELD_U8:
            return 1;
        case FIELD_I16:
        case FIELD_U16:
            return 2;
        case FIELD_I32:
        case FIELD_U32:
        case FIELD_F32:
            return 4;
        default:
            return 8;
    }
}

Number loadNumber(uint8_t type, const void* at) {
    switch (type) {
        case FIELD_I8:
            return {false, load<int8_t>(at), 0};
        case FIELD_U8:
            return {false, load<uint8_t>(at), 0};
        case FIELD_I16:
            return {false, load<int16_t>(at), 0};
        case FIELD_U16:
            return {false, load<uint16_t>(at), 0};
        case FIELD_I32:
            return {false, load<int32_t>(at), 0};
        case FIELD_U32:
            return {false, load<uint32_t>(at), 0};
        case FIELD_F32:
            return {true, 0, double{load<float>(at)}};
        case FIELD_F64:
            return {true, 0, load<double>(at)};
        default:
            return {false, load<int64_t>(at), 0};
    }
}

void storeNumber(uint8_t type, void* at, const Number& number) {
    if (type == FIELD_F32) {
        store(at, number.isFloat ? static_cast<float>(number.real)
                                 : static_cast<float>(number.integer));
    } else if (type == FIELD_F64) {
        store(at, number.isFloat ? number.real : static_cast<double>(number.integer));
    } else {
        const int64_t integer = integerFor(type, number);
        switch (numberBytes(type)) {
            case 1:
                return store(at, static_cast<uint8_t>(integer));
            case 2:
                return store(at, static_cast<uint16_t>(integer));
            case 4:
                return store(at, static_cast<uint32_t>(integer));
            default:
                return store(at, integer);
        }
    }
}

PELMO_CONVERTER_BODY(convertScalar) {
    const Number number = loadNumber(field.type, &field.data);
    disposition = kDataByValue;
    if (targetType == FIELD_STRING) {
        char text[kNumberTextBytes];
        numberToText(field, number, text);
        return becomeText(field, disposition, text);
    }
    if (targetType == FIELD_BOOL) {
        becomeBool(field, number.isFloat ? number.real != 0.0 : number.integer != 0);
        return kStatusSuccess;
    }
    return isNumberType(targetType) ? becomeNumber(field, targetType, number)
                                    : kStatusConversionFailed;
}

// Only 1 counts as true, even if another writer sent a 2.
PELMO_CONVERTER_BODY(convertBool) {
    const bool value = field.data.boolean == 1;
    disposition = kDataByValue;
    if (targetType == FIELD_STRING) {
        becomeConstant(field, disposition, value ? "true" : "false");
        return kStatusSuccess;
    }
    return isNumberType(targetType) ? becomeNumber(field, targetType, {false, value, 0})
                                    : kStatusConversionFailed;
}

PELMO_CONVERTER_BODY(convertIpPort) {
    const uint16_t port = hostOrder16(field.data.ipPort16);
    disposition = kDataByValue;
    switch (targetType) {
        case FIELD_STRING: {
            char text[kNumberTextBytes];
            boundedFormat(text, sizeof text, "%d", port);
            return becomeText(field, disposition, text);
        }
        case FIELD_U16:
        case FIELD_I32:
        case FIELD_U32:
            return becomeNumber(field, targetType, {false, port, 0});
        default:
            return kStatusConversionFailed;
    }
}

PELMO_CONVERTER_BODY(convertIpAddr) {
    const uint32_t address = hostOrder32(field.data.ipAddr32);
    disposition = kDataByValue;
    if (targetType == FIELD_U32) return becomeNumber(field, targetType, {false, address, 0});
    if (targetType != FIELD_STRING) return kStatusConversionFailed;
    char text[kIpTextBytes];
    return ipAddrToText(address, text, sizeof text) != 0 ? becomeText(field, disposition, text)
                                                         : kStatusConversionFailed;
}

uint32_t ipAddrToText(uint32_t value, char* buffer, size_t sizeBytes) {
    if (buffer == nullptr || sizeBytes < kIpTextBytes) return 0;
    return 1 + static_cast<uint32_t>(boundedFormat(buffer, sizeBytes, "%u.%u.%u.%u", value >> 24,
                                                   value >> 16 & 0xff, value >> 8 & 0xff,
                                                   value & 0xff));
}
