// The types of fields as rows, for what is the same for each of them but for the type.

#pragma once

#include "lib/msg/field.h"

// The scalars: word, field type, C++ type, bytes on the wire, member of pelmoFieldData that holds
// it. IP ports and addresses are in network order.
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

// The scalars that are numbers: word, field type, C++ type, member of pelmoFieldData.
#define PELMO_NUMBER_FIELDS(ROW)             \
    ROW(Bool, FIELD_BOOL, uint32_t, boolean) \
    ROW(I8, FIELD_I8, int8_t, i8)            \
    ROW(U8, FIELD_U8, uint8_t, u8)           \
    ROW(I16, FIELD_I16, int16_t, i16)        \
    ROW(U16, FIELD_U16, uint16_t, u16)       \
    ROW(I32, FIELD_I32, int32_t, i32)        \
    ROW(U32, FIELD_U32, uint32_t, u32)       \
    ROW(I64, FIELD_I64, int64_t, i64)        \
    ROW(U64, FIELD_U64, uint64_t, u64)       \
    ROW(F32, FIELD_F32, float, f32)          \
    ROW(F64, FIELD_F64, double, f64)

// word, field type, type of an element, its bytes.
#define PELMO_NUMBER_ARRAY_FIELDS(ROW)         \
    ROW(I8Array, FIELD_I8ARRAY, int8_t, 1)     \
    ROW(U8Array, FIELD_U8ARRAY, uint8_t, 1)    \
    ROW(I16Array, FIELD_I16ARRAY, int16_t, 2)  \
    ROW(U16Array, FIELD_U16ARRAY, uint16_t, 2) \
    ROW(I32Array, FIELD_I32ARRAY, int32_t, 4)  \
    ROW(U32Array, FIELD_U32ARRAY, uint32_t, 4) \
    ROW(I64Array, FIELD_I64ARRAY, int64_t, 8)  \
    ROW(U64Array, FIELD_U64ARRAY, uint64_t, 8) \
    ROW(F32Array, FIELD_F32ARRAY, float, 4)    \
    ROW(F64Array, FIELD_F64ARRAY, double, 8)

// The same for pointers. The size of an element is worked out.
#define PELMO_LIST_FIELDS(ROW)                          \
    ROW(StringArray, FIELD_STRINGARRAY, const char*, 0) \
    ROW(MsgArray, FIELD_MSGARRAY, pelmoMsg*, 0)

// The same for bytes: the number is of them.
#define PELMO_BLOCK_FIELDS(ROW)        \
    ROW(Opaque, FIELD_OPAQUE, void, 1) \
    ROW(Xml, FIELD_XML, void, 1)
