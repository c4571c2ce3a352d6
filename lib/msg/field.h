// One field of a message as it crosses the interface: by value, with its name, id, type and data.
//
// Ownership: `name` and `data.pointer` belong to the side that filled the record: to the caller
// when a field is added, to the message when it was read.
//
// A value that was read and has no bytes or elements has a null pointer. A received string can be
// such a value too.
//
// Byte order: numbers are the host's. IP ports and addresses are words in network order, as they
// are on the wire.

#pragma once

#include <cstdint>

#include "../base/date_time.h"

// Types as the application knows them. On the wire, integers fold into WIRE_INT and WIRE_UINT,
// floats into WIRE_FLOAT, ports and addresses into WIRE_NETINT; the size byte is the width. 128 and
// above belong to the application.
enum FieldType : uint8_t {
    FIELD_BAD = 0,  // never on the wire: what a field that doesn't decode counts as
    FIELD_MSG = 1,
    FIELD_SUBJECT = 2,
    FIELD_DATETIME = 3,
    FIELD_OPAQUE = 7,
    FIELD_STRING = 8,
    FIELD_BOOL = 9,
    WIRE_NETINT = 10,
    WIRE_INT = 11,
    WIRE_UINT = 12,
    WIRE_FLOAT = 13,
    FIELD_I8 = 14,
    FIELD_U8 = 15,
    FIELD_I16 = 16,
    FIELD_U16 = 17,
    FIELD_I32 = 18,
    FIELD_U32 = 19,
    FIELD_I64 = 20,
    FIELD_U64 = 21,
    FIELD_NONE = 22,
    FIELD_F32 = 24,
    FIELD_F64 = 25,
    FIELD_IPPORT16 = 26,
    FIELD_IPADDR32 = 27,
    FIELD_I8ARRAY = 34,
    FIELD_U8ARRAY = 35,
    FIELD_I16ARRAY = 36,
    FIELD_U16ARRAY = 37,
    FIELD_I32ARRAY = 38,
    FIELD_U32ARRAY = 39,
    FIELD_I64ARRAY = 40,
    FIELD_U64ARRAY = 41,
    FIELD_F32ARRAY = 44,
    FIELD_F64ARRAY = 45,
    FIELD_XML = 47,
    FIELD_STRINGARRAY = 48,
    FIELD_MSGARRAY = 49,
};

constexpr unsigned kFirstApplicationType = 128;

union FieldData {
    uint64_t u64;
    uint32_t boolean;
    int8_t i8;
    uint8_t u8;
    int16_t i16;
    uint16_t u16;
    int32_t i32;
    uint32_t u32;
    int64_t i64;
    float f32;
    double f64;
    uint16_t ipPort16;
    uint32_t ipAddr32;
    const void* pointer;
    pelmoMsgDateTime dateTime;
};

// The scalars: word, field type, C++ type, bytes on the wire, member of FieldData that holds it. IP
// ports and addresses are in network order.
#define PELMO_SCALAR_FIELDS(ROW)                         \
    ROW(Bool, FIELD_BOOL, uint32_t, 1, boolean)          \
    ROW(I8, FIELD_I8, int8_t, 1, i8)                     \
    ROW(U8, FIELD_U8, uint8_t, 1, u8)                    \
    ROW(I16, FIELD_I16, int16_t, 2, i16)                 \
    ROW(U16, FIELD_U16, uint16_t, 2, u16)                \
    ROW(I32, FIELD_I32, int32_t, 4, i32)                 \
    ROW(U32, FIELD_U32, uint32_t, 4, u32)                \
    ROW(I64, FIELD_I64, int64_t, 8, i64)                 \
    ROW(U64, FIELD_U64, uint64_t, 8, u64)                \
    ROW(F32, FIELD_F32, float, 4, f32)                   \
    ROW(F64, FIELD_F64, double, 8, f64)                  \
    ROW(IPPort16, FIELD_IPPORT16, uint16_t, 2, ipPort16) \
    ROW(IPAddr32, FIELD_IPADDR32, uint32_t, 4, ipAddr32)

struct pelmoMsgField {
    const char* name = nullptr;  // null for a field without a name
    uint32_t size = 0;   // bytes: of one element, of the whole value, or with the count word of the
                         // string and message arrays
    uint32_t count = 1;  // elements of an array, else 1
    FieldData data{};
    uint16_t id = 0;  // 0 for none
    uint8_t type = FIELD_BAD;
};

// Who owns the data of a field that was decoded or converted.
enum Disposition : uint32_t {
    kDataByValue = 0,     // or constant, or nothing to keep track of
    kDataOwnedBlock = 1,  // a new heap block, for the message to keep
    kDataMessage = 2,     // a message object
    kDataInImage = 3,     // points into the image, or is a block of pointers into it
};
