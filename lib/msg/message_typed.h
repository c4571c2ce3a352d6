// Fields by type: an addition, an update and a read for each, in rows of a few shapes. `id` is 0
// for none, a null name means the field without a name.
//
// Add and Update copy the value into the message; statuses as of pelmoMsg_AddField and
// pelmoMsg_UpdateField (message.h), and kStatusInvalidArgument for no data.
//
// Get finds a field by name and id and gives its value as the type asked for. A field of another
// type is converted where there is a way, else kStatusConversionFailed; from
// StringArray and MsgArray kStatusInvalidArgument. What an output points to belongs to the message,
// as with all reads; nothing is written on failure.
//
// What has no bytes or elements is read with kStatusSuccess and a null pointer: a string, opaque or
// XML value without bytes, an array without elements. A program from elsewhere may send a string
// that has not even its NUL; it means "".
//
// Numbers, dates and addresses are read without an allocation, unless text has to be parsed for
// them.

#pragma once

#include <cstdint>

#include "../base/date_time.h"
#include "../base/status.h"
#include "field.h"

struct pelmoMsg;

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

#define PELMO_DECLARE_FIELD(word, Value, Out)                                                     \
    [[nodiscard]] pelmoStatus pelmoMsg_Add##word(pelmoMsg* msg, const char* name, Value value,    \
                                                 uint16_t id);                                    \
    [[nodiscard]] pelmoStatus pelmoMsg_Update##word(pelmoMsg* msg, const char* name, Value value, \
                                                    uint16_t id);                                 \
    [[nodiscard]] pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name, Out* out,       \
                                                 uint16_t id);

#define PELMO_DECLARE_SCALAR(word, type, Value, size, member) \
    PELMO_DECLARE_FIELD(word, Value, Value)
PELMO_SCALAR_FIELDS(PELMO_DECLARE_SCALAR)
#undef PELMO_DECLARE_SCALAR

#define PELMO_DECLARE_LIST(word, type, Value, size)                                            \
    [[nodiscard]] pelmoStatus pelmoMsg_Add##word(                                              \
        pelmoMsg* msg, const char* name, Value const* values, uint32_t number, uint16_t id);   \
    [[nodiscard]] pelmoStatus pelmoMsg_Update##word(                                           \
        pelmoMsg* msg, const char* name, Value const* values, uint32_t number, uint16_t id);   \
    [[nodiscard]] pelmoStatus pelmoMsg_Get##word(pelmoMsg* msg, const char* name,              \
                                                 Value const** outValues, uint32_t* outNumber, \
                                                 uint16_t id);
PELMO_NUMBER_ARRAY_FIELDS(PELMO_DECLARE_LIST)
PELMO_LIST_FIELDS(PELMO_DECLARE_LIST)
PELMO_BLOCK_FIELDS(PELMO_DECLARE_LIST)
#undef PELMO_DECLARE_LIST

PELMO_DECLARE_FIELD(DateTime, const pelmoMsgDateTime*, pelmoMsgDateTime)

// The read gives null for a value of no bytes, and a terminated copy of one without its NUL.
PELMO_DECLARE_FIELD(String, const char*, const char*)

// The fields that the value shows are copied. The read gives an object that belongs to `msg`.
PELMO_DECLARE_FIELD(Msg, pelmoMsg*, pelmoMsg*)

// Subjects packed as on the wire, and the same as text: kStatusInvalidSubject for a
// text that doesn't pack.
PELMO_DECLARE_FIELD(Subject, const uint8_t*, const uint8_t*)
PELMO_DECLARE_FIELD(SubjectText, const char*, const char*)
#undef PELMO_DECLARE_FIELD

// A field that says only that it is there.
[[nodiscard]] pelmoStatus pelmoMsg_AddNone(pelmoMsg* msg, const char* name, uint16_t id);
