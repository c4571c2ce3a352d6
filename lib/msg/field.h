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

#include <stdint.h>

#include "../base/date_time.h"
#include "../base/language.h"

#ifdef __cplusplus
extern "C" {
#endif

// Types as the application knows them. On the wire, integers fold into WIRE_INT and WIRE_UINT,
// floats into WIRE_FLOAT, ports and addresses into WIRE_NETINT; the size byte is the width. 128 and
// above belong to the application.
enum pelmoFieldType PELMO_UNDERLYING(uint8_t){
    FIELD_BAD = 0,  // never on the wire: what a field that doesn't decode counts as
    FIELD_MSG = 1,       FIELD_SUBJECT = 2,   FIELD_DATETIME = 3,     FIELD_OPAQUE = 7,
    FIELD_STRING = 8,    FIELD_BOOL = 9,      WIRE_NETINT = 10,       WIRE_INT = 11,
    WIRE_UINT = 12,      WIRE_FLOAT = 13,     FIELD_I8 = 14,          FIELD_U8 = 15,
    FIELD_I16 = 16,      FIELD_U16 = 17,      FIELD_I32 = 18,         FIELD_U32 = 19,
    FIELD_I64 = 20,      FIELD_U64 = 21,      FIELD_NONE = 22,        FIELD_F32 = 24,
    FIELD_F64 = 25,      FIELD_IPPORT16 = 26, FIELD_IPADDR32 = 27,    FIELD_I8ARRAY = 34,
    FIELD_U8ARRAY = 35,  FIELD_I16ARRAY = 36, FIELD_U16ARRAY = 37,    FIELD_I32ARRAY = 38,
    FIELD_U32ARRAY = 39, FIELD_I64ARRAY = 40, FIELD_U64ARRAY = 41,    FIELD_F32ARRAY = 44,
    FIELD_F64ARRAY = 45, FIELD_XML = 47,      FIELD_STRINGARRAY = 48, FIELD_MSGARRAY = 49,
};

enum PELMO_UNDERLYING(uint32_t) { kFirstApplicationType = 128 };

typedef union pelmoFieldData {
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
} pelmoFieldData;

typedef struct pelmoMsgField {
    const char* name PELMO_INITIAL(nullptr);  // null for a field without a name
    uint32_t size PELMO_INITIAL(0);   // bytes: of one element, of the whole value, or with the
                                      // count word of the string and message arrays
    uint32_t count PELMO_INITIAL(1);  // elements of an array, else 1
    pelmoFieldData data PELMO_INITIAL({});
    uint16_t id PELMO_INITIAL(0);  // 0 for none
    uint8_t type PELMO_INITIAL(FIELD_BAD);
} pelmoMsgField;

// Who owns the data of a field that was decoded or converted.
typedef enum pelmoDisposition PELMO_UNDERLYING(uint32_t){
    kDataByValue = 0,     // or constant, or nothing to keep track of
    kDataOwnedBlock = 1,  // a new heap block, for the message to keep
    kDataMessage = 2,     // a message object
    kDataInImage = 3,     // points into the image, or is a block of pointers into it
} pelmoDisposition;

#ifdef __cplusplus
}
#endif
