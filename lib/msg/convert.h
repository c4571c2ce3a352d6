// Conversions between field types, for reads that ask for another type than the field has, and for
// the text of every message. Rows of `fieldConverters`; the contract is in lib/msg/codec.h.
//
// Numbers truncate and wrap, without range checks. A float that no integer can hold, and NaN,
// become the least value of the integer type.
//
// Failure: kStatusConversionFailed where there is no way between the types or a text doesn't parse,
// kStatusNoMemory. The field may then be half converted and isn't to be used.
//
// Threads: any; each field by one at a time.

#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/base/status.h"
#include "lib/msg/field.h"

#define PELMO_CONVERTER(name) \
    pelmoStatus name(pelmoMsgField* field, uint8_t targetType, pelmoDisposition* disposition)

// A row's definition, whose body has field and disposition by reference: neither is ever null.
#define PELMO_CONVERTER_BODY(name)                                             \
    static pelmoStatus name##With(pelmoMsgField&, uint8_t, pelmoDisposition&); \
    PELMO_CONVERTER(name) {                                                    \
        return name##With(*field, targetType, *disposition);                   \
    }                                                                          \
    static pelmoStatus name##With([[maybe_unused]] pelmoMsgField& field,       \
                                  [[maybe_unused]] uint8_t targetType,         \
                                  [[maybe_unused]] pelmoDisposition& disposition)

// convert_scalar.cc
PELMO_CONVERTER(convertScalar);
PELMO_CONVERTER(convertBool);
PELMO_CONVERTER(convertIpPort);
PELMO_CONVERTER(convertIpAddr);

// convert_string.cc: from text.
PELMO_CONVERTER(convertString);

// convert_array.cc
PELMO_CONVERTER(convertArray);

// convert_text.cc: what has a text and nothing else.
PELMO_CONVERTER(convertBad);
PELMO_CONVERTER(convertNone);
PELMO_CONVERTER(convertOpaque);
PELMO_CONVERTER(convertXml);
PELMO_CONVERTER(convertDateTime);
PELMO_CONVERTER(convertSubject);
PELMO_CONVERTER(convertMsg);
PELMO_CONVERTER(convertMsgArray);
PELMO_CONVERTER(convertStringArray);

// convert_exact.cc: makes a scalar or a text the number or bool of the target type that it is, and
// leaves it as it was with kStatusConversionFailed where it isn't one.
[[nodiscard]] pelmoStatus convertExactly(pelmoMsgField& field, uint8_t targetType);

// For the converters.

// A number on its way from one type to another.
struct Number {
    bool isFloat;
    int64_t integer;  // unsigned 64-bit values as their bits
    double real;
};

[[nodiscard]] constexpr bool isNumberType(uint8_t type) {
    return (type >= FIELD_I8 && type <= FIELD_U64) || type == FIELD_F32 || type == FIELD_F64;
}

[[nodiscard]] uint32_t numberBytes(uint8_t type);
[[nodiscard]] Number loadNumber(uint8_t type, const void* at);
void storeNumber(uint8_t type, void* at, const Number& number);

// Makes the field a text in a heap block of its own, or a constant one.
[[nodiscard]] pelmoStatus becomeText(pelmoMsgField& field,
                                     pelmoDisposition& disposition,
                                     const char* text);
void becomeConstant(pelmoMsgField& field, pelmoDisposition& disposition, const char* text);

// "a.b.c.d" of an address in the host's order. Returns the bytes written with the NUL; 0 without a
// buffer of at least 16.
[[nodiscard]] uint32_t ipAddrToText(uint32_t value, char* buffer, size_t sizeBytes);
