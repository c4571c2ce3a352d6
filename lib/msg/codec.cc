#include "lib/msg/codec.h"

#include "lib/msg/codec_internal.h"
#include "lib/msg/convert.h"
#include "lib/msg/trace_ops.h"

namespace {

struct CodecRow {
    uint8_t type;
    pelmoFieldEncoder encoder;
    pelmoFieldDecoder decoder;
    pelmoFieldConverter converter;
};

// Types 10 to 13 exist only on the wire. The application's scalar types are decoded as well, in
// case another writer sends them; this library's encoders don't.
constexpr CodecRow kRows[] = {
    {FIELD_BAD, nullptr, nullptr, convertBad},
    {FIELD_MSG, encodeMsg, decodeMsg, convertMsg},
    {FIELD_SUBJECT, encodeSubject, decodeSubject, convertSubject},
    {FIELD_DATETIME, encodeDateTime, decodeDateTime, convertDateTime},
    {FIELD_OPAQUE, encodeOpaque, decodeBlock, convertOpaque},
    {FIELD_STRING, encodeString, decodeBlock, convertString},
    {FIELD_BOOL, encodeBool, decodeBool, convertBool},
    {WIRE_NETINT, nullptr, decodeNetInt, nullptr},
    {WIRE_INT, nullptr, decodeWord, nullptr},
    {WIRE_UINT, nullptr, decodeWord, nullptr},
    {WIRE_FLOAT, nullptr, decodeWord, nullptr},
    {FIELD_I8, encodeI8, decodeWord, convertScalar},
    {FIELD_U8, encodeU8, decodeWord, convertScalar},
    {FIELD_I16, encodeI16, decodeWord, convertScalar},
    {FIELD_U16, encodeU16, decodeWord, convertScalar},
    {FIELD_I32, encodeI32, decodeWord, convertScalar},
    {FIELD_U32, encodeU32, decodeWord, convertScalar},
    {FIELD_I64, encodeI64, decodeWord, convertScalar},
    {FIELD_U64, encodeU64, decodeWord, convertScalar},
    {FIELD_NONE, encodeNone, decodeNone, convertNone},
    {FIELD_F32, encodeF32, decodeWord, convertScalar},
    {FIELD_F64, encodeF64, decodeWord, convertScalar},
    {FIELD_IPPORT16, encodeIPPort16, decodeNetInt, convertIpPort},
    {FIELD_IPADDR32, encodeIPAddr32, decodeNetInt, convertIpAddr},
    {FIELD_I8ARRAY, encodeArray8, decodeArray8, convertArray},
    {FIELD_U8ARRAY, encodeArray8, decodeArray8, convertArray},
    {FIELD_I16ARRAY, encodeArray16, decodeArray16, convertArray},
    {FIELD_U16ARRAY, encodeArray16, decodeArray16, convertArray},
    {FIELD_I32ARRAY, encodeArray32, decodeArray32, convertArray},
    {FIELD_U32ARRAY, encodeArray32, decodeArray32, convertArray},
    {FIELD_I64ARRAY, encodeArray64, decodeArray64, convertArray},
    {FIELD_U64ARRAY, encodeArray64, decodeArray64, convertArray},
    {FIELD_F32ARRAY, encodeArray32, decodeArray32, convertArray},
    {FIELD_F64ARRAY, encodeArray64, decodeArray64, convertArray},
    {FIELD_XML, encodeXml, decodeXml, convertXml},
    {FIELD_STRINGARRAY, encodeStringArray, decodeStringArray, convertStringArray},
    {FIELD_MSGARRAY, encodeMsgArray, decodeMsgArray, convertMsgArray},
};

template <typename Operation>
consteval CodecTable<Operation> column(Operation CodecRow::*member) {
    CodecTable<Operation> table{};
    for (const CodecRow& row : kRows) {
        table[row.type] = row.*member;
    }
    return table;
}

}  // namespace

constinit CodecTable<pelmoFieldEncoder> fieldEncoders = column(&CodecRow::encoder);
constinit CodecTable<pelmoFieldDecoder> fieldDecoders = column(&CodecRow::decoder);
constinit CodecTable<pelmoFieldConverter> fieldConverters = column(&CodecRow::converter);

pelmoStatus pelmoMsg_SetHandlers(uint8_t type,
                                 pelmoFieldEncoder encoder,
                                 pelmoFieldDecoder decoder,
                                 pelmoFieldConverter converter) {
    traceLine(kTraceMsgDetail, "pelmoMsg_SetHandlers(%u, %p, %p, %p)", type,
              reinterpret_cast<const void*>(encoder), reinterpret_cast<const void*>(decoder),
              reinterpret_cast<const void*>(converter));
    if (type < kFirstApplicationType) return kStatusReservedHandler;
    fieldEncoders[type] = encoder;
    fieldDecoders[type] = decoder;
    fieldConverters[type] = converter;
    return kStatusSuccess;
}

pelmoStatus pelmoMsg_SetOpaqueHandlers(uint8_t type) {
    traceLine(kTraceMsgDetail, "pelmoMsg_SetOpaqueHandlers(%u)", type);
    if (type < kFirstApplicationType) return kStatusReservedHandler;
    fieldEncoders[type] = fieldEncoders[FIELD_OPAQUE];
    fieldDecoders[type] = fieldDecoders[FIELD_OPAQUE];
    fieldConverters[type] = fieldConverters[FIELD_OPAQUE];
    return kStatusSuccess;
}
