// Each type's value in wire form, written and read.

#include <gtest/gtest.h>

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/codec_internal.h"
#include "lib/msg/text.h"
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

void expectDecodes(const FieldValue& value, uint8_t wireType, const Bytes& bytes) {
    const Decoded whole = decode(wireType, bytes);
    EXPECT_EQ(whole.status, kStatusSuccess);
    EXPECT_TRUE(holds(whole, value));
    EXPECT_EQ(whole.used, bytes.size());
}

void expectBothWays(const FieldValue& value, uint8_t wireType, const Bytes& bytes) {
    SCOPED_TRACE(testing::Message() << "type " << +value.type << " bytes " << bytes.size());
    expectEncodes(value, wireType, bytes);
    expectDecodes(value, wireType, bytes);
    for (size_t size = 0; size < bytes.size(); size += 1 + size / 100 * 977) {
        // A truth value may lack its byte: it isn't true then.
        const bool isSound = wireType == FIELD_BOOL && size == 1;
        EXPECT_EQ(decode(wireType, firstBytes(bytes, size)).status,
                  isSound ? kStatusSuccess : kStatusCorruptMessage)
            << size;
    }
}

// Sizes about the borders of the size classes are the message model's.
TEST(Codec, WritesAndReadsKnownBytes) {
    const Bytes empty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};
    const struct {
        SharedValue value;
        Bytes typeAndBytes;
    } cases[] = {
        {scalarValue(FIELD_I8, &FieldData::i8, int8_t{-128}), {11, 1, 0x80}},
        {scalarValue(FIELD_U8, &FieldData::u8, uint8_t{200}), {12, 1, 200}},
        {scalarValue(FIELD_I16, &FieldData::i16, int16_t{-2}), {11, 2, 0xff, 0xfe}},
        {scalarValue(FIELD_U16, &FieldData::u16, uint16_t{0x1234}), {12, 2, 0x12, 0x34}},
        {scalarValue(FIELD_I32, &FieldData::i32, INT32_MIN), {11, 4, 0x80, 0, 0, 0}},
        {scalarValue(FIELD_U32, &FieldData::u32, 0xfffefdfcu), {12, 4, 0xff, 0xfe, 0xfd, 0xfc}},
        {scalarValue(FIELD_I64, &FieldData::i64, int64_t{-2}),
         {11, 8, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe}},
        {scalarValue(FIELD_U64, &FieldData::u64, uint64_t{0x0102030405060708}),
         {12, 8, 1, 2, 3, 4, 5, 6, 7, 8}},
        {scalarValue(FIELD_F32, &FieldData::f32, -1.5f), {13, 4, 0xbf, 0xc0, 0, 0}},
        {scalarValue(FIELD_F64, &FieldData::f64, 1.5), {13, 8, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
        {scalarValue(FIELD_IPPORT16, &FieldData::ipPort16, hostOrder16(7500)), {10, 2, 0x1d, 0x4c}},
        {scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, hostOrder32(0x0a010203)),
         {10, 4, 10, 1, 2, 3}},
        {scalarValue(FIELD_BOOL, &FieldData::boolean, 1u), {9, 1, 1}},
        {noneValue(), {22, 0}},
        {dateTimeValue(-1, 999999000), {3, 8, 255, 255, 255, 255, 255, 0x0f, 0x42, 0x3f}},
        {dateTimeValue(-kTwoTo39, 1000), {3, 8, 0, 0, 0, 0, 0x80, 0, 0, 1}},
        {dateTimeValue(kTwoTo39 - 1, 0), {3, 8, 255, 255, 255, 255, 0x7f, 0, 0, 0}},
        {blockValue(FIELD_OPAQUE, {1, 0, 2}), {7, 3, 1, 0, 2}},
        {blockValue(FIELD_STRING, {'a', 'b'}), {8, 2, 'a', 'b'}},
        {subjectValue("A.B"), {2, 121, 0, 9, 2, 3, 'A', 0, 3, 'B', 0}},
        {numbersValue<uint8_t>(35, {}), {35, 0}},
        {numbersValue<int16_t>(36, {1, -2}), {36, 4, 0, 1, 0xff, 0xfe}},
        {numbersValue<int64_t>(40, {}), {40, 0}},
        {numbersValue<float>(44, {1.5f, -0.0f}), {44, 8, 0x3f, 0xc0, 0, 0, 0x80, 0, 0, 0}},
        {stringArrayValue({"", "ab"}), {48, 8, 0, 0, 0, 2, 0, 'a', 'b', 0}},
        {messageValue(empty), Bytes{1, 122} + empty},
        {messageArrayValue({empty, empty}), Bytes{49, 20, 0, 0, 0, 2} + empty + empty},
    };
    for (const auto& [value, all] : cases) {
        expectBothWays(*value, all[0], Bytes(all.begin() + 1, all.end()));
    }
}

TEST(Codec, RefusesToWriteWhatTheTypeDoesNotHave) {
    const char* const texts[] = {"ab", "c"};
    const auto date = [](uint32_t size, int64_t seconds, uint32_t nanoseconds) -> pelmoMsgField {
        const pelmoMsgDateTime time = {seconds, nanoseconds};
        return {.size = size, .data = {.dateTime = time}, .type = FIELD_DATETIME};
    };
    const Bytes empty = imageOf(std::vector<Bytes>());
    const SharedValue messages[] = {messageValue(empty), messageArrayValue({empty})};
    std::vector<pelmoMsgField> fields = {
        date(11, 0, 0),
        date(12, kTwoTo39, 0),
        date(12, -kTwoTo39 - 1, 0),
        date(12, 0, 1000000000),
        fieldOf(FIELD_SUBJECT, 3, "\0\4"),  // longer by its own head
        fieldOf(FIELD_SUBJECT, 1, "\0\4"),
        fieldOf(FIELD_SUBJECT, 4, "\0\4\1\1"),
        fieldOf(FIELD_STRINGARRAY, 8, texts, 2),  // takes 9
        fieldOf(FIELD_STRINGARRAY, 10, texts, 2),
        fieldOf(FIELD_STRINGARRAY, 3, texts, 0),
    };
    for (const SharedValue& value : messages) {
        fields.push_back(value->field());
        ++fields.back().size;
    }
    for (uint8_t type = FIELD_I8; type <= FIELD_MSGARRAY; ++type) {
        if (fieldEncoders[type] == nullptr || type == FIELD_NONE) continue;
        for (const uint32_t size : {0u, 3u, 9u}) {
            if (type < FIELD_XML) fields.push_back(fieldOf(type, size, texts));
        }
        if (type >= FIELD_I8ARRAY)
            fields.push_back(fieldOf(type, type < FIELD_I16ARRAY ? 1 : 8, nullptr));
    }
    for (const pelmoMsgField& wrong : fields) {
        EXPECT_EQ(encode(wrong, 100).status, kStatusInvalidArgument)
            << int{wrong.type} << " of " << wrong.size;
    }
}

TEST(Codec, WritesWhatTheReaderSeesOtherwise) {
    const pelmoMsgField measured = fieldOf(FIELD_STRING, 0, "ab");
    EXPECT_EQ(encode(measured, 4).image, (Bytes{8, 3, 'a', 'b', 0}));
    const SharedValue two = scalarValue(FIELD_BOOL, &FieldData::boolean, 2u);
    EXPECT_EQ(encode(two->field(), 2).image, (Bytes{9, 1, 1}));
    const Encoded cut = encode(dateTimeValue(0, 999999999)->field(), 9);
    EXPECT_EQ(cut.image, (Bytes{3, 8, 0, 0, 0, 0, 0, 0x0f, 0x42, 0x3f}));
}

TEST(Codec, ReadsOddValuesAsFarAsTheyGo) {
    const struct {
        uint8_t type;
        Bytes bytes;
        uint32_t size, count;
    } cases[] = {
        {FIELD_I32ARRAY, {6, 0, 0, 0, 7, 9, 9}, 4, 1},
        {FIELD_I32ARRAY, {3, 1, 2, 3}, 4, 0},
        {FIELD_STRINGARRAY, {6, 0, 0, 0, 0, 9, 9}, 6, 0},
        {FIELD_MSGARRAY, {5, 0, 0, 0, 0, 9}, 5, 0},
        {FIELD_OPAQUE, {0}, 0, 1},
        {FIELD_STRING, {121, 0, 2}, 0, 1},
        {FIELD_BOOL, {0}, 4, 1},
        {FIELD_DATETIME, {8, 0, 0, 0, 1, 0, 255, 255, 255}, 12, 1},  // microseconds beyond a second
    };
    for (const auto& [type, bytes, size, count] : cases) {
        const Decoded decoded = decode(type, bytes);
        EXPECT_EQ(decoded.status, kStatusSuccess);
        EXPECT_EQ(decoded.field.size, size);
        EXPECT_EQ(decoded.field.count, count);
        EXPECT_EQ(decoded.used, bytes.size());
    }
    for (const auto& [code, type] :
         {std::pair{14, FIELD_I16}, {20, FIELD_I16}, {21, FIELD_U16}, {27, FIELD_IPPORT16}}) {
        // Codes of the application: the width alone decides.
        EXPECT_EQ(decode(static_cast<uint8_t>(code), {2, 0xff, 0xfe}).field.type, type);
    }
}

pelmoStatus becomeUnterminated(pelmoMsgField& field, uint8_t, Disposition& disposition) {
    void* block = std::malloc(3);
    if (block == nullptr) return kStatusNoMemory;
    std::memcpy(block, "abc", 3);
    field.type = FIELD_STRING;
    field.size = 3;
    field.data.pointer = block;
    disposition = kDataOwnedBlock;
    return kStatusSuccess;
}

// A text that a converter of the application leaves without its NUL is shown as far as it goes.
TEST(Codec, AsksTheApplicationForItsTypesFrom128) {
    const FieldDecoder decode = fieldDecoders[FIELD_OPAQUE];
    EXPECT_EQ(pelmoMsg_SetHandlers(127, nullptr, decode, nullptr), kStatusReservedHandler);
    EXPECT_EQ(pelmoMsg_SetOpaqueHandlers(127), kStatusReservedHandler);
    const struct {
        const char* text;
        FieldDecoder decoder;
        FieldConverter converter;
    } cases[] = {
        {"{NULL=abc}", decode, becomeUnterminated},
        {"{NULL=[NO CONVERTER AVAILABLE]}", decode, fieldConverters[FIELD_I32ARRAY]},
        {"{NULL=[NO CONVERTER AVAILABLE]}", decode, nullptr},
        {"{NULL=[NO DECODER AVAILABLE]}", nullptr, nullptr},
        {"{NULL=[3 opaque bytes]}", decode, fieldConverters[FIELD_OPAQUE]},
    };
    for (const uint8_t type : Bytes{128, 255}) {
        const Message msg = newMessage();
        ASSERT_EQ(pelmoMsg_SetOpaqueHandlers(type), kStatusSuccess);
        const pelmoMsgField field = fieldOf(type, 3, "\1\2\3");
        ASSERT_EQ(pelmoMsg_AddField(msg.get(), &field), kStatusSuccess);
        for (const auto& [text, decoder, converter] : cases) {
            const char* shown = nullptr;
            ASSERT_EQ(pelmoMsg_SetHandlers(type, nullptr, decoder, converter), kStatusSuccess);
            ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &shown), kStatusSuccess);
            EXPECT_STREQ(shown, text);
        }
    }
}

}  // namespace
