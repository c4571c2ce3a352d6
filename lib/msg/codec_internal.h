// The codec tables and the rows that codec.cc lays out in them. lib/msg/codec.h says what each row
// does, lib/msg/wire.h what it writes.

#pragma once

#include <array>

#include "lib/msg/codec.h"
#include "lib/msg/field_rows.h"
#include "lib/msg/scalar.h"

// By type code; null where there is no such operation.
template <typename Operation>
using CodecTable = std::array<Operation, 256>;

extern CodecTable<pelmoFieldEncoder> fieldEncoders;
extern CodecTable<pelmoFieldDecoder> fieldDecoders;
extern CodecTable<pelmoFieldConverter> fieldConverters;

// For codec.cc alone.

#define PELMO_ENCODER(name) pelmoStatus name(pelmoWriteCursor* cursor, const pelmoMsgField* field)
#define PELMO_DECODER(name) \
    pelmoStatus name(pelmoReadCursor* cursor, pelmoMsgField* field, pelmoDisposition* disposition)

// A row's definition, whose body has the three by reference: none of them is ever null.
#define PELMO_ENCODER_BODY(name)                                             \
    static pelmoStatus name##With(pelmoWriteCursor&, const pelmoMsgField&);  \
    PELMO_ENCODER(name) {                                                    \
        return name##With(*cursor, *field);                                  \
    }                                                                        \
    static pelmoStatus name##With([[maybe_unused]] pelmoWriteCursor& cursor, \
                                  [[maybe_unused]] const pelmoMsgField& field)
#define PELMO_DECODER_BODY(name)                                                        \
    static pelmoStatus name##With(pelmoReadCursor&, pelmoMsgField&, pelmoDisposition&); \
    PELMO_DECODER(name) {                                                               \
        return name##With(*cursor, *field, *disposition);                               \
    }                                                                                   \
    static pelmoStatus name##With([[maybe_unused]] pelmoReadCursor& cursor,             \
                                  [[maybe_unused]] pelmoMsgField& field,                \
                                  [[maybe_unused]] pelmoDisposition& disposition)

// codec_scalar.cc
#define PELMO_DECLARE_ENCODER(word, type, Value, size, member) PELMO_ENCODER(encode##word);
PELMO_SCALAR_FIELDS(PELMO_DECLARE_ENCODER)
#undef PELMO_DECLARE_ENCODER
PELMO_ENCODER(encodeDateTime);
PELMO_ENCODER(encodeNone);
PELMO_DECODER(decodeBool);
PELMO_DECODER(decodeWord);
PELMO_DECODER(decodeNetInt);
PELMO_DECODER(decodeDateTime);
PELMO_DECODER(decodeNone);

// codec_array.cc: by element width, since signs don't matter on the way.
PELMO_ENCODER(encodeArray8);
PELMO_ENCODER(encodeArray16);
PELMO_ENCODER(encodeArray32);
PELMO_ENCODER(encodeArray64);
PELMO_DECODER(decodeArray8);
PELMO_DECODER(decodeArray16);
PELMO_DECODER(decodeArray32);
PELMO_DECODER(decodeArray64);

// codec_block.cc
PELMO_ENCODER(encodeOpaque);
PELMO_ENCODER(encodeString);
PELMO_ENCODER(encodeSubject);
PELMO_ENCODER(encodeXml);
PELMO_DECODER(decodeBlock);
PELMO_DECODER(decodeSubject);
PELMO_DECODER(decodeXml);

// codec_nested.cc
PELMO_ENCODER(encodeMsg);
PELMO_ENCODER(encodeMsgArray);
PELMO_ENCODER(encodeStringArray);
PELMO_DECODER(decodeMsg);
PELMO_DECODER(decodeMsgArray);
PELMO_DECODER(decodeStringArray);
