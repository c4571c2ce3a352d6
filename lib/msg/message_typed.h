// Fields by type: an addition, an update and a read for each, in rows of a few shapes. `id` is 0
// for none, a null name stands for the field without a name.
//
// Add and Update copy the value into the message; statuses as of pelmoMsg_AddField and
// pelmoMsg_UpdateField (lib/msg/message.h), and kStatusInvalidArgument for no data.
//
// Get finds a field by name and id and gives its value as the type asked for. A field of another
// type is converted where there is a way (lib/msg/convert.h), else kStatusConversionFailed; from
// StringArray and MsgArray kStatusInvalidArgument. What an output points to belongs to the message,
// as with all reads; nothing is written on failure.
//
// Numbers, dates and addresses are read without an allocation, unless text has to be parsed for
// them.

#pragma once

#include <cstdint>

#include "lib/msg/message.h"

// word, field type, C++ type, bytes on the wire, member of FieldData that holds it. IP ports and
// addresses are in network order.
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

// word, field type: a length and bytes.
#define PELMO_BLOCK_FIELDS(ROW) \
    ROW(Opaque, FIELD_OPAQUE)   \
    ROW(Xml, FIELD_XML)

#define PELMO_DECLARE_SCALAR(word, type, Value, size, member)                                     \
    [[nodiscard]] pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value value,    \
                                                 uint16_t id);                                    \
    [[nodiscard]] pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value value, \
                                                    uint16_t id);                                 \
    [[nodiscard]] pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name, Value* out,     \
                                                 uint16_t id);
PELMO_SCALAR_FIELDS(PELMO_DECLARE_SCALAR)
#undef PELMO_DECLARE_SCALAR

#define PELMO_DECLARE_ARRAY(word, type, Value, size)                                          \
    [[nodiscard]] pelmoStatus pelmoMsg_Add##word(                                             \
        pelmoMsg* msg, const char* name, Value const* values, uint32_t count, uint16_t id);   \
    [[nodiscard]] pelmoStatus pelmoMsg_Update##word(                                          \
        pelmoMsg* msg, const char* name, Value const* values, uint32_t count, uint16_t id);   \
    [[nodiscard]] pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name,             \
                                                 Value const** outValues, uint32_t* outCount, \
                                                 uint16_t id);
PELMO_NUMBER_ARRAY_FIELDS(PELMO_DECLARE_ARRAY)
PELMO_LIST_FIELDS(PELMO_DECLARE_ARRAY)
#undef PELMO_DECLARE_ARRAY

#define PELMO_DECLARE_BLOCK(word, type)                                                          \
    [[nodiscard]] pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name,                \
                                                 const void* bytes, uint32_t size, uint16_t id); \
    [[nodiscard]] pelmoStatus pelmoMsg_Update##word(                                             \
        pelmoMsg* msg, const char* name, const void* bytes, uint32_t size, uint16_t id);         \
    [[nodiscard]] pelmoStatus pelmoMsg_Get##word(                                                \
        pelmoMsg* msg, const char* name, const void** outBytes, uint32_t* outSize, uint16_t id);
PELMO_BLOCK_FIELDS(PELMO_DECLARE_BLOCK)
#undef PELMO_DECLARE_BLOCK

[[nodiscard]] pelmoStatus pelmoMsg_AddDateTime(pelmoMsg* msg,
                                               const char* name,
                                               const pelmoMsgDateTime* value,
                                               uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_UpdateDateTime(pelmoMsg* msg,
                                                  const char* name,
                                                  const pelmoMsgDateTime* value,
                                                  uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetDateTime(pelmoMsg* msg,
                                               const char* name,
                                               pelmoMsgDateTime* out,
                                               uint16_t id);

// The read gives null for a value of no bytes, and a terminated copy of one without its NUL.
[[nodiscard]] pelmoStatus pelmoMsg_AddString(pelmoMsg* msg,
                                             const char* name,
                                             const char* text,
                                             uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_UpdateString(pelmoMsg* msg,
                                                const char* name,
                                                const char* text,
                                                uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetString(pelmoMsg* msg,
                                             const char* name,
                                             const char** out,
                                             uint16_t id);

// The fields that `value` shows are copied. The read gives an object that belongs to `msg`.
[[nodiscard]] pelmoStatus pelmoMsg_AddMsg(pelmoMsg* msg,
                                          const char* name,
                                          pelmoMsg* value,
                                          uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_UpdateMsg(pelmoMsg* msg,
                                             const char* name,
                                             pelmoMsg* value,
                                             uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetMsg(pelmoMsg* msg,
                                          const char* name,
                                          pelmoMsg** out,
                                          uint16_t id);

// Packed subjects (lib/containers/subject.h), and the same as text: kStatusInvalidSubject for a
// text that doesn't pack.
[[nodiscard]] pelmoStatus pelmoMsg_AddSubject(pelmoMsg* msg,
                                              const char* name,
                                              const uint8_t* subject,
                                              uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_UpdateSubject(pelmoMsg* msg,
                                                 const char* name,
                                                 const uint8_t* subject,
                                                 uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetSubject(pelmoMsg* msg,
                                              const char* name,
                                              const uint8_t** out,
                                              uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_AddSubjectText(pelmoMsg* msg,
                                                  const char* name,
                                                  const char* text,
                                                  uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_UpdateSubjectText(pelmoMsg* msg,
                                                     const char* name,
                                                     const char* text,
                                                     uint16_t id);
[[nodiscard]] pelmoStatus pelmoMsg_GetSubjectText(pelmoMsg* msg,
                                                  const char* name,
                                                  const char** out,
                                                  uint16_t id);

// A field that says only that it is there.
[[nodiscard]] pelmoStatus pelmoMsg_AddNone(pelmoMsg* msg, const char* name, uint16_t id);
