// Encoding, decoding and converting of field values: three operations per type, in tables by type
// code, so that the message object knows nothing of types.
//
// The tables are filled at build time for the library's types; the application adds rows from 128
// up with pelmoMsg_SetHandlers, before messages flow. Any thread reads them, without a lock.
//
// An encoder writes the size prefix and the value from `at` on, never past `end`, and leaves `at`
// after them. It may overwrite the type byte, at[-1]; those of folded types do. kStatusNoMemory
// means that the room is too small: the object makes more and asks again from the same place.
//
// An encoder may be asked several times for one addition or update, at different places and with
// different room, also off the message; what it does must depend on the field alone.
// kStatusNoMemory in a room of at least twice the field's size is final.
//
// The size prefix says how many bytes of value follow. For v bytes, big-endian:
//
//     v                 below 120 | 120 to 29999  | 30000 and above
//     written as        v         | 121, u16 v+2  | 122, u32 v+4
//
// A reader takes either long form for any v. Prefix bytes 120 and from 123 on are refused.
//
// A decoder begins at the first prefix byte. It fills size, count and data, folds the type back to
// the application's, and says with the disposition who owns the data. It never reads past `end`,
// which is the end of the field's record. kStatusCorruptMessage for a value that is malformed,
// kStatusInvalidSize for a width or prefix that doesn't fit, kStatusNoMemory.
//
// kDataOwnedBlock: `data.pointer` is a block of malloc, which from a successful return on is the
// message's to free, with the reads that it keeps; after a failure the operation has freed it
// itself. kDataInImage: the pointer leads into the bytes between the cursors, and the message keeps
// them. The same for what a converter gives, which frees nothing of the field that it was given.
//
// A converter rewrites the field to hold the value as another type. It gives
// kStatusConversionFailed where there is no conversion between the two.

#pragma once

#include <stdint.h>

#include "../base/status.h"
#include "field.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoWriteCursor {
    uint8_t* at;
    uint8_t* end;
} pelmoWriteCursor;

typedef struct pelmoReadCursor {
    const uint8_t* at;
    const uint8_t* end;
} pelmoReadCursor;

typedef pelmoStatus (*pelmoFieldEncoder)(pelmoWriteCursor* cursor, const pelmoMsgField* field);
typedef pelmoStatus (*pelmoFieldDecoder)(pelmoReadCursor* cursor,
                                         pelmoMsgField* field,
                                         pelmoDisposition* disposition);
typedef pelmoStatus (*pelmoFieldConverter)(pelmoMsgField* field,
                                           uint8_t targetType,
                                           pelmoDisposition* disposition);

// Null operations are stored as they are. kStatusReservedHandler for a type below 128.
pelmoStatus pelmoMsg_SetHandlers(uint8_t type,
                                 pelmoFieldEncoder encoder,
                                 pelmoFieldDecoder decoder,
                                 pelmoFieldConverter converter);

// Carries fields of this type as a length and bytes.
pelmoStatus pelmoMsg_SetOpaqueHandlers(uint8_t type);

#ifdef __cplusplus
}
#endif
