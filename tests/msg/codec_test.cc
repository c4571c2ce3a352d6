// Each type's value in wire form, written and read.

#include "lib/msg/codec.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "lib/base/bytes.h"
#include "tests/support/codec_run.h"

namespace {

constexpr int64_t kTwoTo39 = int64_t{1} << 39;

// What a decoder gives for messages is where they lie in the image.
bool holds(const Decoded& decoded, const FieldValue& value) {
    const pelmoMsgField& field = decoded.field;
    if (field.type != value.type || field.size != value.size || field.count != value.count) {
        return false;
    }
    if (field.type != FIELD_MSG && field.type != FIELD_MSGARRAY) return fieldHolds(field, value);
    const void* const single[] = {field.data.pointer};
    const auto* images =
        field.type == FIELD_MSG ? single : static_cast<const void* const*>(field.data.pointer);
    for (size_t i = 0; i < value.images.size(); ++i) {
        if (std::memcmp(images[i], value.images[i].data(), value.images[i].size()) != 0) {
            return false;
        }
    }
    return true;
}

SharedValue real32(uint32_t bits) {
    return scalarValue(FIELD_F32, &FieldData::f32, std::bit_cast<float>(bits));
}

SharedValue real64(uint64_t bits) {
    return scalarValue(FIELD_F64, &FieldData::f64, std::bit_cast<double>(bits));
}

// Encodes to these bytes, and decodes from them.
struct KnownValue {
    const char* what;
    SharedValue value;
    uint8_t wireType;
    Bytes bytes;
};

std::vector<KnownValue> knownScalars() {
    constexpr auto kMin64 = std::numeric_limits<int64_t>::min();
    return {
        {"i8", scalarValue(FIELD_I8, &FieldData::i8, int8_t{-128}), 11, {1, 0x80}},
        {"u8", scalarValue(FIELD_U8, &FieldData::u8, uint8_t{255}), 12, {1, 0xff}},
        {"i16", scalarValue(FIELD_I16, &FieldData::i16, int16_t{-2}), 11, {2, 0xff, 0xfe}},
        {"u16", scalarValue(FIELD_U16, &FieldData::u16, uint16_t{0x1234}), 12, {2, 0x12, 0x34}},
        {"i32", scalarValue(FIELD_I32, &FieldData::i32, INT32_MIN), 11, {4, 0x80, 0, 0, 0}},
        {"u32",
         scalarValue(FIELD_U32, &FieldData::u32, 0xdeadbeef),
         12,
         {4, 0xde, 0xad, 0xbe, 0xef}},
        {"i64",
         scalarValue(FIELD_I64, &FieldData::i64, kMin64),
         11,
         {8, 0x80, 0, 0, 0, 0, 0, 0, 0}},
        {"u64",
         scalarValue(FIELD_U64, &FieldData::u64, uint64_t{0x0102030405060708}),
         12,
         {8, 1, 2, 3, 4, 5, 6, 7, 8}},
        {"f32", real32(0x3fc00000), 13, {4, 0x3f, 0xc0, 0, 0}},
        {"f32 -0.0", real32(0x80000000), 13, {4, 0x80, 0, 0, 0}},
        {"f32 infinity", real32(0x7f800000), 13, {4, 0x7f, 0x80, 0, 0}},
        {"f32 NaN", real32(0x7fc12345), 13, {4, 0x7f, 0xc1, 0x23, 0x45}},
        {"f32 denormal", real32(1), 13, {4, 0, 0, 0, 1}},
        {"f64", real64(0x3ff8000000000000), 13, {8, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
        {"f64 -0.0", real64(0x8000000000000000), 13, {8, 0x80, 0, 0, 0, 0, 0, 0, 0}},
        {"f64 -infinity", real64(0xfff0000000000000), 13, {8, 0xff, 0xf0, 0, 0, 0, 0, 0, 0}},
        {"f64 NaN", real64(0x7ff8000000000123), 13, {8, 0x7f, 0xf8, 0, 0, 0, 0, 1, 0x23}},
        {"f64 denormal", real64(1), 13, {8, 0, 0, 0, 0, 0, 0, 0, 1}},
        {"port 7500",
         scalarValue(FIELD_IPPORT16, &FieldData::ipPort16, hostOrder16(7500)),
         10,
         {2, 0x1d, 0x4c}},
        {"address 10.1.2.3",
         scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, hostOrder32(0x0a010203)),
         10,
         {4, 10, 1, 2, 3}},
        {"true", scalarValue(FIELD_BOOL, &FieldData::boolean, 1u), 9, {1, 1}},
        {"false", scalarValue(FIELD_BOOL, &FieldData::boolean, 0u), 9, {1, 0}},
        {"none", noneValue(), 22, {0}},
        {"epoch", dateTimeValue(0, 0), 3, {8, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"a second before",
         dateTimeValue(-1, 999999000),
         3,
         {8, 0xff, 0xff, 0xff, 0xff, 0xff, 0x0f, 0x42, 0x3f}},
        {"first second", dateTimeValue(-kTwoTo39, 1000), 3, {8, 0, 0, 0, 0, 0x80, 0, 0, 1}},
        {"last second",
         dateTimeValue(kTwoTo39 - 1, 0),
         3,
         {8, 0xff, 0xff, 0xff, 0xff, 0x7f, 0, 0, 0}},
    };
}

std::vector<KnownValue> knownBlocks() {
    const Bytes empty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};
    return {
        {"opaque", blockValue(FIELD_OPAQUE, {1, 0, 2}), 7, {3, 1, 0, 2}},
        {"no opaque bytes", blockValue(FIELD_OPAQUE, {}), 7, {0}},
        {"string", stringValue("ab"), 8, {3, 'a', 'b', 0}},
        {"string without NUL", blockValue(FIELD_STRING, {'a', 'b'}), 8, {2, 'a', 'b'}},
        {"subject", subjectValue("A.B"), 2, {121, 0, 9, 2, 3, 'A', 0, 3, 'B', 0}},
        {"i8 array", numbersValue<int8_t>(34, {1, -1}), 34, {2, 1, 0xff}},
        {"u8 array", numbersValue<uint8_t>(35, {1, 2, 3}), 35, {3, 1, 2, 3}},
        {"i16 array", numbersValue<int16_t>(36, {1, -2}), 36, {4, 0, 1, 0xff, 0xfe}},
        {"u16 array", numbersValue<uint16_t>(37, {0x1234}), 37, {2, 0x12, 0x34}},
        {"i32 array",
         numbersValue<int32_t>(38, {-1, 1}),
         38,
         {8, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 1}},
        {"u32 array", numbersValue<uint32_t>(39, {0xdeadbeef}), 39, {4, 0xde, 0xad, 0xbe, 0xef}},
        {"i64 array",
         numbersValue<int64_t>(40, {-2}),
         40,
         {8, 255, 255, 255, 255, 255, 255, 255, 254}},
        {"u64 array",
         numbersValue<uint64_t>(41, {0x0102030405060708}),
         41,
         {8, 1, 2, 3, 4, 5, 6, 7, 8}},
        {"f32 array",
         numbersValue<float>(44, {1.5f, -0.0f}),
         44,
         {8, 0x3f, 0xc0, 0, 0, 0x80, 0, 0, 0}},
        {"f64 array", numbersValue<double>(45, {1.5}), 45, {8, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
        {"no elements", numbersValue<int64_t>(40, {}), 40, {0}},
        {"no bytes", numbersValue<uint8_t>(35, {}), 35, {0}},
        {"string array", stringArrayValue({"", "ab"}), 48, {8, 0, 0, 0, 2, 0, 'a', 'b', 0}},
        {"message", messageValue(empty), 1, Bytes{122} + empty},
        {"message array", messageArrayValue({empty, empty}), 49,
         Bytes{20, 0, 0, 0, 2} + empty + empty},
    };
}

TEST(Codec, HasTheRowsOfItsTypes) {
    std::string encoders(256, '.');
    std::string decoders(256, '.');
    std::string converters(256, '.');
    const auto mark = [](std::string& row, size_t first, size_t last) {
        std::fill(row.begin() + static_cast<ptrdiff_t>(first),
                  row.begin() + static_cast<ptrdiff_t>(last + 1), 'x');
    };
    for (std::string* row : {&encoders, &decoders, &converters}) {
        for (const auto& [first, last] :
             {std::pair{1, 3}, {7, 9}, {14, 22}, {24, 27}, {34, 41}, {44, 45}, {47, 49}}) {
            mark(*row, static_cast<size_t>(first), static_cast<size_t>(last));
        }
    }
    mark(decoders, 10, 13);
    mark(converters, 0, 0);
    for (size_t code = 0; code < 256; ++code) {
        EXPECT_EQ(fieldEncoders[code] != nullptr, encoders[code] == 'x') << code;
        EXPECT_EQ(fieldDecoders[code] != nullptr, decoders[code] == 'x') << code;
        EXPECT_EQ(fieldConverters[code] != nullptr, converters[code] == 'x') << code;
    }
}

void expectEncodes(const FieldValue& value, uint8_t wireType, const Bytes& bytes) {
    const pelmoMsgField field = value.field();
    const Encoded whole = encode(field, bytes.size());
    EXPECT_EQ(whole.status, kStatusSuccess);
    EXPECT_EQ(whole.image, Bytes{wireType} + bytes);
    EXPECT_EQ(whole.used, whole.image.size());
    for (const size_t room : {size_t{0}, bytes.size() / 2, bytes.size() - 1}) {
        if (room == bytes.size()) continue;
        const Encoded cut = encode(field, room);
        EXPECT_EQ(cut.status, kStatusNoMemory) << room;
        EXPECT_EQ(cut.image, Bytes{value.type} + Bytes(room, kUntouched)) << room;
        EXPECT_EQ(cut.used, 1u);
    }
}

Disposition dispositionOf(const FieldValue& value) {
    const bool wide = value.type >= FIELD_I16ARRAY && value.type <= FIELD_F64ARRAY;
    if (wide) return value.count != 0 ? kDataOwnedBlock : kDataByValue;
    if (isList(value.type)) return kDataInImage;
    if (value.type == FIELD_I8ARRAY || value.type == FIELD_U8ARRAY) return kDataByValue;
    const bool inImage = !value.block.empty() || !value.images.empty();
    return inImage ? kDataInImage : kDataByValue;
}

void expectDecodes(const FieldValue& value, uint8_t wireType, const Bytes& bytes) {
    const Decoded whole = decode(wireType, bytes);
    EXPECT_EQ(whole.status, kStatusSuccess);
    EXPECT_TRUE(holds(whole, value));
    EXPECT_EQ(whole.disposition, dispositionOf(value));
    EXPECT_EQ(whole.used, bytes.size());
}

TEST(Codec, WritesAndReadsKnownBytes) {
    for (const auto& all : {knownScalars(), knownBlocks()}) {
        for (const KnownValue& known : all) {
            SCOPED_TRACE(known.what);
            expectEncodes(*known.value, known.wireType, known.bytes);
            expectDecodes(*known.value, known.wireType, known.bytes);
            for (size_t size = 0; size < known.bytes.size(); ++size) {
                // A truth value may lack its byte: it isn't true then.
                const bool stands = known.wireType == FIELD_BOOL && size == 1;
                EXPECT_EQ(decode(known.wireType, firstBytes(known.bytes, size)).status,
                          stands ? kStatusSuccess : kStatusCorruptMessage)
                    << size;
            }
        }
    }
}

// Sizes about the borders of the prefix classes, as near as the elements' width allows.
TEST(Codec, WritesAndReadsValuesOfAllSizes) {
    const struct {
        uint8_t first, last;
        uint32_t width;
    } arrays[] = {{34, 35, 1}, {36, 37, 2}, {38, 39, 4}, {40, 41, 8}, {44, 44, 4}, {45, 45, 8}};
    for (const size_t size : {100u, 119u, 120u, 128u, 29999u, 30000u, 30008u, 100000u}) {
        SCOPED_TRACE(size);
        std::vector<SharedValue> values = {
            blockValue(FIELD_OPAQUE, patternBytes(size, 1)),
            stringValue(std::string(size - 1, 's')),
            stringArrayValue({std::string(size - 6, 's'), ""}),
            messageValue(imageOf({recordOf("o", 0, *blockValue(FIELD_OPAQUE, Bytes(size)))})),
        };
        values.push_back(
            messageArrayValue({values.back()->images[0], imageOf(std::vector<Bytes>())}));
        for (const auto& [first, last, width] : arrays) {
            for (uint8_t type = first; type <= last; ++type) {
                values.push_back(arrayValue(type, width, patternBytes(size / width * width, type)));
            }
        }
        for (const SharedValue& value : values) {
            SCOPED_TRACE(int{value->type});
            const Bytes bytes = wireBytes(*value);
            expectEncodes(*value, value->type, bytes);
            expectDecodes(*value, value->type, bytes);
        }
    }
}

TEST(Codec, RefusesToWriteWhatTheTypeDoesntHave) {
    const char* const texts[] = {"ab", "c"};
    const Bytes longSubject = {0, 4, 0};  // tells more than there is
    const auto field = [](uint8_t type, uint32_t size, const void* data, uint32_t count = 1) {
        pelmoMsgField made;
        made.type = type;
        made.size = size;
        made.count = count;
        made.data.pointer = data;
        return made;
    };
    const auto date = [](uint32_t size, int64_t seconds, uint32_t nanoseconds) {
        pelmoMsgField made = dateTimeValue(seconds, nanoseconds)->field();
        made.size = size;
        return made;
    };
    std::vector<pelmoMsgField> fields = {
        date(8, 0, 0),
        date(11, 0, 0),
        date(12, kTwoTo39, 0),
        date(12, -kTwoTo39 - 1, 0),
        date(12, INT64_MIN, 0),
        date(12, 0, 1000000000),
        date(12, 0, UINT32_MAX),
        field(FIELD_SUBJECT, 3, longSubject.data()),
        field(FIELD_SUBJECT, 1, longSubject.data()),
        field(FIELD_SUBJECT, 4, "\0\4\1\1"),
        field(FIELD_STRINGARRAY, 8, texts, 2),  // takes 9
        field(FIELD_STRINGARRAY, 10, texts, 2),
        field(FIELD_STRINGARRAY, 7, texts, 2),
        field(FIELD_STRINGARRAY, 3, texts, 0),
    };
    const Bytes empty = imageOf(std::vector<Bytes>());
    const SharedValue messages[] = {messageValue(empty), messageArrayValue({empty})};
    for (const SharedValue& value : messages) {
        for (const int off : {-1, 1}) {
            fields.push_back(value->field());
            fields.back().size += static_cast<uint32_t>(off);
        }
    }
    for (uint8_t type = 14; type <= 27; ++type) {
        if (fieldEncoders[type] == nullptr || type == FIELD_NONE) continue;
        for (const uint32_t size : {0u, 3u, 9u}) {
            fields.push_back(field(type, size, nullptr));
        }
    }
    for (uint8_t type = FIELD_I8ARRAY; type <= FIELD_F64ARRAY; ++type) {
        if (fieldEncoders[type] == nullptr) continue;
        for (const uint32_t size : {0u, 3u, 16u}) {
            fields.push_back(field(type, size, texts));
        }
    }
    for (const uint8_t type : Bytes{1, 2, 7, 8, 47, 48, 49}) {
        fields.push_back(field(type, 9, nullptr));
    }
    for (const auto& [type, width] : {std::pair{34, 1u}, {36, 2u}, {38, 4u}, {40, 8u}, {44, 4u}}) {
        fields.push_back(field(static_cast<uint8_t>(type), width, nullptr));
    }
    for (const pelmoMsgField& wrong : fields) {
        EXPECT_EQ(encode(wrong, 100).status, kStatusInvalidArgument)
            << int{wrong.type} << " of " << wrong.size;
    }
    EXPECT_EQ(encode(date(8, 0, 0), 0).status, kStatusInvalidArgument);  // ahead of the room
}

TEST(Codec, WritesWhatTheReaderSeesOtherwise) {
    pelmoMsgField measured;
    measured.type = FIELD_STRING;
    measured.data.pointer = "ab";
    EXPECT_EQ(encode(measured, 4).image, (Bytes{8, 3, 'a', 'b', 0}));
    EXPECT_EQ(encode(measured, 3).status, kStatusNoMemory);

    const SharedValue two = scalarValue(FIELD_BOOL, &FieldData::boolean, 2u);
    EXPECT_EQ(encode(two->field(), 2).image, (Bytes{9, 1, 1}));
    EXPECT_EQ(decode(FIELD_BOOL, {1, 2}).field.data.boolean, 2u);

    const Encoded cut = encode(dateTimeValue(0, 999999999)->field(), 9);
    EXPECT_EQ(cut.image, (Bytes{3, 8, 0, 0, 0, 0, 0, 0x0f, 0x42, 0x3f}));
}

TEST(Codec, ReadsTheWidthNotTheCode) {
    const struct {
        uint8_t code;
        Bytes bytes;
        uint8_t type;
        uint64_t value;
    } cases[] = {
        {18, {2, 0xff, 0xfe}, FIELD_I16, 0xfffe},
        {14, {8, 1, 2, 3, 4, 5, 6, 7, 8}, FIELD_I64, 0x0102030405060708},
        {21, {1, 9}, FIELD_U8, 9},
        {15, {4, 0, 0, 1, 0}, FIELD_U32, 256},
        {25, {4, 0x3f, 0xc0, 0, 0}, FIELD_F32, 0x3fc00000},
        {24, {8, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}, FIELD_F64, 0x3ff8000000000000},
    };
    for (const auto& [code, bytes, type, value] : cases) {
        const Decoded decoded = decode(code, bytes);
        EXPECT_EQ(decoded.status, kStatusSuccess);
        EXPECT_EQ(decoded.field.type, type);
        EXPECT_EQ(decoded.field.size, bytes.size() - 1);
        EXPECT_EQ(decoded.field.data.u64, value);
    }
    EXPECT_EQ(decode(26, {4, 10, 1, 2, 3}).field.type, FIELD_IPADDR32);
    EXPECT_EQ(decode(27, {2, 0x1d, 0x4c}).field.type, FIELD_IPPORT16);
}

TEST(Codec, ReadsOddValuesAsFarAsTheyGo) {
    const Decoded rounded = decode(FIELD_I32ARRAY, {6, 0, 0, 0, 7, 9, 9});
    EXPECT_EQ(rounded.field.count, 1u);
    EXPECT_EQ(*static_cast<const int32_t*>(rounded.field.data.pointer), 7);
    EXPECT_EQ(rounded.used, 7u);

    const struct {
        uint8_t type;
        Bytes bytes;
        uint32_t size, count;
    } nothing[] = {
        {FIELD_I32ARRAY, {3, 1, 2, 3}, 4, 0},
        {FIELD_STRINGARRAY, {4, 0, 0, 0, 0}, 4, 0},
        {FIELD_STRINGARRAY, {6, 0, 0, 0, 0, 9, 9}, 6, 0},
        {FIELD_MSGARRAY, {5, 0, 0, 0, 0, 9}, 5, 0},
        {FIELD_OPAQUE, {0}, 0, 1},
        {FIELD_STRING, {121, 0, 2}, 0, 1},
    };
    for (const auto& [type, bytes, size, count] : nothing) {
        const Decoded decoded = decode(type, bytes);
        EXPECT_EQ(decoded.status, kStatusSuccess);
        EXPECT_EQ(decoded.field.size, size);
        EXPECT_EQ(decoded.field.count, count);
        EXPECT_EQ(decoded.field.data.pointer, nullptr);
        EXPECT_EQ(decoded.disposition, kDataByValue);
        EXPECT_EQ(decoded.used, bytes.size());
    }
    const Decoded untold = decode(FIELD_BOOL, {0});
    EXPECT_EQ(untold.field.data.boolean, 0u);
    EXPECT_EQ(untold.used, 1u);
    // More microseconds than a second has.
    EXPECT_EQ(decode(FIELD_DATETIME, {8, 0, 0, 0, 1, 0, 255, 255, 255}).field.data.dateTime.seconds,
              1);
}

TEST(Codec, TakesRowsOfTheApplicationFrom128) {
    const auto encoder = fieldEncoders[FIELD_NONE];
    const auto decoder = fieldDecoders[FIELD_NONE];
    const auto converter = fieldConverters[FIELD_NONE];
    for (const uint8_t type : Bytes{0, 1, 22, 127}) {
        const auto before = fieldEncoders[type];
        EXPECT_EQ(pelmoMsg_SetHandlers(type, nullptr, decoder, converter), kStatusReservedHandler);
        EXPECT_EQ(pelmoMsg_SetOpaqueHandlers(type), kStatusReservedHandler);
        EXPECT_EQ(fieldEncoders[type], before);
    }
    for (const uint8_t type : Bytes{128, 255}) {
        EXPECT_EQ(pelmoMsg_SetHandlers(type, encoder, decoder, converter), kStatusSuccess);
        EXPECT_EQ(fieldEncoders[type], encoder);
        EXPECT_EQ(fieldDecoders[type], decoder);
        EXPECT_EQ(fieldConverters[type], converter);
        EXPECT_EQ(pelmoMsg_SetOpaqueHandlers(type), kStatusSuccess);
        EXPECT_EQ(fieldEncoders[type], fieldEncoders[FIELD_OPAQUE]);
        EXPECT_EQ(fieldDecoders[type], fieldDecoders[FIELD_OPAQUE]);
        EXPECT_EQ(fieldConverters[type], fieldConverters[FIELD_OPAQUE]);
        EXPECT_EQ(pelmoMsg_SetHandlers(type, nullptr, nullptr, nullptr), kStatusSuccess);
        EXPECT_EQ(fieldDecoders[type], nullptr);
    }
}

}  // namespace
