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

#include <stddef.h>
#include <stdint.h>

#include "../base/date_time.h"
#include "../base/status.h"
#include "field.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// Scalars

// Bool is 0 or another number: one byte in the message, a word here.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddBool(pelmoMsg* msg,
                                             const char* name,
                                             uint32_t value,
                                             uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateBool(pelmoMsg* msg,
                                                const char* name,
                                                uint32_t value,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetBool(const pelmoMsg* msg,
                                             const char* name,
                                             uint32_t* out,
                                             uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI8(pelmoMsg* msg,
                                           const char* name,
                                           int8_t value,
                                           uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI8(pelmoMsg* msg,
                                              const char* name,
                                              int8_t value,
                                              uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI8(const pelmoMsg* msg,
                                           const char* name,
                                           int8_t* out,
                                           uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU8(pelmoMsg* msg,
                                           const char* name,
                                           uint8_t value,
                                           uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU8(pelmoMsg* msg,
                                              const char* name,
                                              uint8_t value,
                                              uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU8(const pelmoMsg* msg,
                                           const char* name,
                                           uint8_t* out,
                                           uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI16(pelmoMsg* msg,
                                            const char* name,
                                            int16_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI16(pelmoMsg* msg,
                                               const char* name,
                                               int16_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI16(const pelmoMsg* msg,
                                            const char* name,
                                            int16_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU16(pelmoMsg* msg,
                                            const char* name,
                                            uint16_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU16(pelmoMsg* msg,
                                               const char* name,
                                               uint16_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU16(const pelmoMsg* msg,
                                            const char* name,
                                            uint16_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI32(pelmoMsg* msg,
                                            const char* name,
                                            int32_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI32(pelmoMsg* msg,
                                               const char* name,
                                               int32_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI32(const pelmoMsg* msg,
                                            const char* name,
                                            int32_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU32(pelmoMsg* msg,
                                            const char* name,
                                            uint32_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU32(pelmoMsg* msg,
                                               const char* name,
                                               uint32_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU32(const pelmoMsg* msg,
                                            const char* name,
                                            uint32_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI64(pelmoMsg* msg,
                                            const char* name,
                                            int64_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI64(pelmoMsg* msg,
                                               const char* name,
                                               int64_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI64(const pelmoMsg* msg,
                                            const char* name,
                                            int64_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU64(pelmoMsg* msg,
                                            const char* name,
                                            uint64_t value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU64(pelmoMsg* msg,
                                               const char* name,
                                               uint64_t value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU64(const pelmoMsg* msg,
                                            const char* name,
                                            uint64_t* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddF32(pelmoMsg* msg,
                                            const char* name,
                                            float value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateF32(pelmoMsg* msg,
                                               const char* name,
                                               float value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF32(const pelmoMsg* msg,
                                            const char* name,
                                            float* out,
                                            uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddF64(pelmoMsg* msg,
                                            const char* name,
                                            double value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateF64(pelmoMsg* msg,
                                               const char* name,
                                               double value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF64(const pelmoMsg* msg,
                                            const char* name,
                                            double* out,
                                            uint16_t id);

// IP ports and addresses are words in network order.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddIPPort16(pelmoMsg* msg,
                                                 const char* name,
                                                 uint16_t value,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateIPPort16(pelmoMsg* msg,
                                                    const char* name,
                                                    uint16_t value,
                                                    uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetIPPort16(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint16_t* out,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddIPAddr32(pelmoMsg* msg,
                                                 const char* name,
                                                 uint32_t value,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateIPAddr32(pelmoMsg* msg,
                                                    const char* name,
                                                    uint32_t value,
                                                    uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetIPAddr32(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint32_t* out,
                                                 uint16_t id);

// Exact reads of numbers: as the reads above, but nothing is rounded, cut or wrapped on the way.
// kStatusConversionFailed where the value, as the field has it, isn't one of the type asked for:
// 300 as U8, -1 as U32, 1.5 as I32, 2^53+1 as F64, 0.1 of an F64 as F32, 2 as Bool. A NaN is one of
// both float types. A text is read as the number that it spells, all of it: "7 apples" spells none.
// Bools are 0 and 1; dates, addresses and what isn't a scalar are no numbers.
PELMO_NODISCARD pelmoStatus pelmoMsg_GetBoolExact(const pelmoMsg* msg,
                                                  const char* name,
                                                  uint32_t* out,
                                                  uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI8Exact(const pelmoMsg* msg,
                                                const char* name,
                                                int8_t* out,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU8Exact(const pelmoMsg* msg,
                                                const char* name,
                                                uint8_t* out,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI16Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 int16_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU16Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint16_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI32Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 int32_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU32Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint32_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI64Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 int64_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU64Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint64_t* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF32Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 float* out,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF64Exact(const pelmoMsg* msg,
                                                 const char* name,
                                                 double* out,
                                                 uint16_t id);

// A date-time in UTC.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddDateTime(pelmoMsg* msg,
                                                 const char* name,
                                                 const pelmoMsgDateTime* value,
                                                 uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateDateTime(pelmoMsg* msg,
                                                    const char* name,
                                                    const pelmoMsgDateTime* value,
                                                    uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetDateTime(const pelmoMsg* msg,
                                                 const char* name,
                                                 pelmoMsgDateTime* out,
                                                 uint16_t id);

// Text

// The read gives null for a value of no bytes, and a terminated copy of one without its NUL.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddString(pelmoMsg* msg,
                                               const char* name,
                                               const char* value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateString(pelmoMsg* msg,
                                                  const char* name,
                                                  const char* value,
                                                  uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetString(const pelmoMsg* msg,
                                               const char* name,
                                               const char** out,
                                               uint16_t id);

// The same with the length in bytes, without a NUL: the text needs none, may have some within, and
// may be null for a length of 0. The read gives "" for a value of no bytes; what it gives is
// terminated, and the length counts all before that NUL. Other programs may read a text up to the
// first NUL only. kStatusInvalidSize for a text of 4 GiB.
PELMO_NODISCARD pelmoStatus
pelmoMsg_AddStringN(pelmoMsg* msg, const char* name, const char* text, size_t length, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateStringN(
    pelmoMsg* msg, const char* name, const char* text, size_t length, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetStringN(
    const pelmoMsg* msg, const char* name, const char** out, size_t* outLength, uint16_t id);

// Subjects packed as on the wire, and the same as text: kStatusInvalidSubject for a
// text that doesn't pack.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddSubject(pelmoMsg* msg,
                                                const char* name,
                                                const uint8_t* value,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateSubject(pelmoMsg* msg,
                                                   const char* name,
                                                   const uint8_t* value,
                                                   uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetSubject(const pelmoMsg* msg,
                                                const char* name,
                                                const uint8_t** out,
                                                uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_AddSubjectText(pelmoMsg* msg,
                                                    const char* name,
                                                    const char* value,
                                                    uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateSubjectText(pelmoMsg* msg,
                                                       const char* name,
                                                       const char* value,
                                                       uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetSubjectText(const pelmoMsg* msg,
                                                    const char* name,
                                                    const char** out,
                                                    uint16_t id);

// Messages

// The fields that the value shows are copied. The read gives an object that belongs to `msg`.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddMsg(pelmoMsg* msg,
                                            const char* name,
                                            pelmoMsg* value,
                                            uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateMsg(pelmoMsg* msg,
                                               const char* name,
                                               pelmoMsg* value,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetMsg(const pelmoMsg* msg,
                                            const char* name,
                                            pelmoMsg** out,
                                            uint16_t id);

// Bytes: the number is of them. XML values are compressed on the wire.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddOpaque(
    pelmoMsg* msg, const char* name, void const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateOpaque(
    pelmoMsg* msg, const char* name, void const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetOpaque(const pelmoMsg* msg,
                                               const char* name,
                                               void const** outValues,
                                               uint32_t* outNumber,
                                               uint16_t id);
PELMO_NODISCARD pelmoStatus
pelmoMsg_AddXml(pelmoMsg* msg, const char* name, void const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateXml(
    pelmoMsg* msg, const char* name, void const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetXml(const pelmoMsg* msg,
                                            const char* name,
                                            void const** outValues,
                                            uint32_t* outNumber,
                                            uint16_t id);

// Arrays: the number is of elements.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddI8Array(
    pelmoMsg* msg, const char* name, int8_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI8Array(
    pelmoMsg* msg, const char* name, int8_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI8Array(const pelmoMsg* msg,
                                                const char* name,
                                                int8_t const** outValues,
                                                uint32_t* outNumber,
                                                uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU8Array(
    pelmoMsg* msg, const char* name, uint8_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU8Array(
    pelmoMsg* msg, const char* name, uint8_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU8Array(const pelmoMsg* msg,
                                                const char* name,
                                                uint8_t const** outValues,
                                                uint32_t* outNumber,
                                                uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI16Array(
    pelmoMsg* msg, const char* name, int16_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI16Array(
    pelmoMsg* msg, const char* name, int16_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI16Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 int16_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU16Array(
    pelmoMsg* msg, const char* name, uint16_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU16Array(
    pelmoMsg* msg, const char* name, uint16_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU16Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint16_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI32Array(
    pelmoMsg* msg, const char* name, int32_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI32Array(
    pelmoMsg* msg, const char* name, int32_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI32Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 int32_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU32Array(
    pelmoMsg* msg, const char* name, uint32_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU32Array(
    pelmoMsg* msg, const char* name, uint32_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU32Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint32_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddI64Array(
    pelmoMsg* msg, const char* name, int64_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateI64Array(
    pelmoMsg* msg, const char* name, int64_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetI64Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 int64_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddU64Array(
    pelmoMsg* msg, const char* name, uint64_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateU64Array(
    pelmoMsg* msg, const char* name, uint64_t const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetU64Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 uint64_t const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddF32Array(
    pelmoMsg* msg, const char* name, float const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateF32Array(
    pelmoMsg* msg, const char* name, float const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF32Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 float const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddF64Array(
    pelmoMsg* msg, const char* name, double const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateF64Array(
    pelmoMsg* msg, const char* name, double const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetF64Array(const pelmoMsg* msg,
                                                 const char* name,
                                                 double const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddStringArray(
    pelmoMsg* msg, const char* name, const char* const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateStringArray(
    pelmoMsg* msg, const char* name, const char* const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetStringArray(const pelmoMsg* msg,
                                                    const char* name,
                                                    const char* const** outValues,
                                                    uint32_t* outNumber,
                                                    uint16_t id);

PELMO_NODISCARD pelmoStatus pelmoMsg_AddMsgArray(
    pelmoMsg* msg, const char* name, pelmoMsg* const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_UpdateMsgArray(
    pelmoMsg* msg, const char* name, pelmoMsg* const* values, uint32_t number, uint16_t id);
PELMO_NODISCARD pelmoStatus pelmoMsg_GetMsgArray(const pelmoMsg* msg,
                                                 const char* name,
                                                 pelmoMsg* const** outValues,
                                                 uint32_t* outNumber,
                                                 uint16_t id);

// A field that says only that it is there.
PELMO_NODISCARD pelmoStatus pelmoMsg_AddNone(pelmoMsg* msg, const char* name, uint16_t id);

#ifdef __cplusplus
}
#endif
