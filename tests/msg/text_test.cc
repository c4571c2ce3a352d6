// The line of text that stands for a message.

#include "lib/msg/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/base/bytes.h"
#include "lib/msg/codec.h"
#include "lib/msg/envelope.h"
#include "lib/msg/message_typed.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/message_values.h"

namespace {

using Records = std::vector<Bytes>;

SharedValue i32(int32_t number) {
    return scalarValue(FIELD_I32, &FieldData::i32, number);
}

std::string textOf(pelmoMsg* msg) {
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_ConvertToString(msg, &text), kStatusSuccess);
    return text != nullptr ? text : "";
}

std::string textOf(const Records& records) {
    return textOf(messageFrom(imageOf(records)).get());
}

std::string repeat(const std::string& text, size_t times) {
    std::string all;
    while (times-- > 0) {
        all += text;
    }
    return all;
}

TEST(MessageText, ShowsNamesAndIds) {
    const std::string longest(126, 'n');
    const struct {
        const char* text;
        Records records;
    } cases[] = {
        {"{}", {}},
        {"{a=1 b=\"x\"}", {recordOf("a", 0, *i32(1)), recordOf("b", 0, *stringValue("x"))}},
        {"{NULL=7}", {recordOf(nullptr, 0, *i32(7))}},
        {"{=7}", {recordOf("", 0, *i32(7))}},
        {"{[9]=7}", {recordOf("", 9, *i32(7))}},
        {"{a[5]=1}", {recordOf("a", 5, *i32(1))}},
        {"{a[65535]=1 a=2}", {recordOf("a", 65535, *i32(1)), recordOf("a", 0, *i32(2))}},
        {"{%s%n[1]=\"%d%s%n\"}", {recordOf("%s%n", 1, *stringValue("%d%s%n"))}},
        {"{a=1}", {{5, 'a', 0, 'b', 'c', 0, 11, 1, 1}}},  // a name with a NUL inside
    };
    for (const auto& [text, records] : cases) {
        EXPECT_EQ(textOf(records), text);
    }
    EXPECT_EQ(textOf({recordOf(longest.c_str(), 0, *i32(1))}), "{" + longest + "=1}");
}

TEST(MessageText, ShowsAValueOfEachType) {
    const Bytes inner = imageOf({recordOf("a", 0, *i32(1))});
    const Bytes other = imageOf({recordOf("b", 0, *i32(2))});
    const struct {
        const char* text;
        SharedValue value;
    } cases[] = {
        {"\"\"", stringValue("")},
        {"\"\"", blockValue(FIELD_STRING, {})},
        {"\"abc\"", blockValue(FIELD_STRING, {'a', 'b', 'c'})},
        {"\"ab\"", blockValue(FIELD_STRING, {'a', 'b', 0, 'c', 'd', 0})},
        {"\"ab\"", blockValue(FIELD_STRING, {'a', 'b', 0, 'c', 'd'})},
        {"\"say \"hi\"\n\"", stringValue("say \"hi\"\n")},
        {"[A.B.C]", subjectValue("A.B.C")},
        {"{a=1}", messageValue(inner)},
        {"[12 opaque bytes]", blockValue(FIELD_OPAQUE, Bytes(12))},
        {"[0 opaque bytes]", blockValue(FIELD_OPAQUE, {})},
        {"[NONE]", noneValue()},
        {"true", scalarValue(FIELD_BOOL, &FieldData::boolean, 1u)},
        {"false", scalarValue(FIELD_BOOL, &FieldData::boolean, 0u)},
        {"false", scalarValue(FIELD_BOOL, &FieldData::boolean, 2u)},
        {"-128", scalarValue(FIELD_I8, &FieldData::i8, int8_t{-128})},
        {"255", scalarValue(FIELD_U8, &FieldData::u8, uint8_t{255})},
        {"-5", scalarValue(FIELD_I16, &FieldData::i16, int16_t{-5})},
        {"65535", scalarValue(FIELD_U16, &FieldData::u16, uint16_t{65535})},
        {"-2147483648", i32(INT32_MIN)},
        {"4294967295", scalarValue(FIELD_U32, &FieldData::u32, UINT32_MAX)},
        {"-9223372036854775808", scalarValue(FIELD_I64, &FieldData::i64, INT64_MIN)},
        {"18446744073709551615", scalarValue(FIELD_U64, &FieldData::u64, UINT64_MAX)},
        {"1.5", scalarValue(FIELD_F32, &FieldData::f32, 1.5f)},
        {"0.1", scalarValue(FIELD_F32, &FieldData::f32, 0.1f)},
        {"-1e+300", scalarValue(FIELD_F64, &FieldData::f64, -1e300)},
        {"10.1.2.3", scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, hostOrder32(0x0a010203))},
        {"7500", scalarValue(FIELD_IPPORT16, &FieldData::ipPort16, hostOrder16(7500))},
        {"2024-01-02 03:04:05Z", dateTimeValue(1704164645, 0)},
        {"2024-01-02 03:04:05.000005000Z", dateTimeValue(1704164645, 5000)},
        {"[-1 2]", numbersValue<int8_t>(FIELD_I8ARRAY, {-1, 2})},
        {"[255 2]", numbersValue<uint8_t>(FIELD_U8ARRAY, {255, 2})},
        {"[1 2 3]", numbersValue<int32_t>(FIELD_I32ARRAY, {1, 2, 3})},
        {"[18446744073709551615]", numbersValue<uint64_t>(FIELD_U64ARRAY, {UINT64_MAX})},
        {"[1.500000]", numbersValue<float>(FIELD_F32ARRAY, {1.5f})},
        {"[1.5 2]", numbersValue<double>(FIELD_F64ARRAY, {1.5, 2})},
        {"[]", numbersValue<uint8_t>(FIELD_U8ARRAY, {})},
        {"[]", numbersValue<double>(FIELD_F64ARRAY, {})},
        {"[\"a\" \"b\"]", stringArrayValue({"a", "b"})},
        {"[\"\"]", stringArrayValue({""})},
        {"[]", stringArrayValue({})},
        {"[{a=1} {b=2}]", messageArrayValue({inner, other})},
        {"[]", messageArrayValue({})},
    };
    for (const auto& [text, value] : cases) {
        const Bytes record = recordOf("v", 0, *value);
        EXPECT_EQ(textOf({record}), std::string("{v=") + text + "}");
        EXPECT_EQ(textOf({record, record}), std::string("{v=") + text + " v=" + text + "}");
    }
    EXPECT_EQ(textOf({{2, 'x', 0, FIELD_XML, 6, 0, 'h', 'e', 'l', 'l', 'o'}}),
              "{x=[XML document: 5 bytes]}");
}

TEST(MessageText, GoesOnWhereAValueHasNoText) {
    const std::string noDecoder = "{v=[NO DECODER AVAILABLE] a=1}";
    const std::string noConverter = "{v=[NO CONVERTER AVAILABLE] a=1}";
    const struct {
        const std::string& text;
        Bytes typeAndValue;
    } cases[] = {
        {noDecoder, {200, 2, 9, 9}},  // nobody's type
        {noDecoder, {5, 0}},          // no type at all
        {noDecoder, {0, 0}},
        {noDecoder, {WIRE_INT, 3, 1, 2, 3}},
        {noDecoder, {FIELD_MSG, 8, 0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa}},
        {noDecoder, {FIELD_STRINGARRAY, 4, 0, 0, 0, 1}},
        {noConverter, {FIELD_MSG, 122, 0, 0, 0, 9, 0x99, 0x55, 0xee, 0xaa, 1}},  // doesn't walk
        {noConverter, {FIELD_MSGARRAY, 13, 0, 0, 0, 1, 0, 0, 0, 9, 0x99, 0x55, 0xee, 0xaa, 1}},
    };
    for (const auto& [text, typeAndValue] : cases) {
        Bytes record = {2, 'v', 0};
        record.insert(record.end(), typeAndValue.begin(), typeAndValue.end());
        EXPECT_EQ(textOf({record, recordOf("a", 0, *i32(1))}), text) << int{typeAndValue[0]};
    }
}

TEST(MessageText, ShowsTheEnvelopeWhileItIsClosed) {
    const Bytes image =
        imageOf({recordOf("sub", 0, *subjectValue("A.B")), recordOf("mtype", 0, *stringValue("D")),
                 recordOf("data", 0, *messageValue(imageOf({recordOf("a", 0, *i32(1))})))});
    const Message msg = messageFrom(image);
    EXPECT_EQ(textOf(msg.get()), "{sub=[A.B] mtype=\"D\" data={a=1}}");
    ASSERT_EQ(msgOpenEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(textOf(msg.get()), "{a=1}");
    ASSERT_EQ(pelmoMsg_AddI32(msg.get(), "b", 2, 0), kStatusSuccess);
    EXPECT_EQ(textOf(msg.get()), "{a=1 b=2}");
}

TEST(MessageText, GrowsToAnyLength) {
    for (size_t chars = 0; chars < 120; ++chars) {
        const std::string name(chars, 'n');
        EXPECT_EQ(textOf({recordOf(name.c_str(), 0, *i32(7))}), "{" + name + "=7}");
    }
    const std::string large(100000, 'l');
    EXPECT_EQ(textOf({recordOf("l", 0, *stringValue(large))}), "{l=\"" + large + "\"}");
    EXPECT_EQ(textOf(Records(3000, recordOf(nullptr, 0, *noneValue()))),
              "{" + repeat("NULL=[NONE] ", 2999) + "NULL=[NONE]}");
}

// Messages within messages, `levels` of them around the innermost.
Bytes nested(size_t levels, bool inArrays) {
    Bytes image = imageOf({recordOf("a", 0, *i32(1))});
    while (levels-- > 0) {
        const SharedValue value = inArrays ? messageArrayValue({image}) : messageValue(image);
        image = imageOf({recordOf("m", 0, *value)});
    }
    return image;
}

TEST(MessageText, EndsWhereMessagesNestTooDeep) {
    const auto around = [](size_t levels, const std::string& inner) {
        return repeat("{m=", levels) + inner + repeat("}", levels);
    };
    const std::string tooDeep = "[NO CONVERTER AVAILABLE]";
    const size_t most = kMostTextDepth - 1;
    EXPECT_GE(most, 60u);
    EXPECT_EQ(textOf(messageFrom(nested(most, false)).get()), around(most, "{a=1}"));
    for (const size_t levels : {most + 1, most + 3, size_t{1000}}) {
        EXPECT_EQ(textOf(messageFrom(nested(levels, false)).get()), around(most + 1, tooDeep));
    }
    EXPECT_EQ(textOf(messageFrom(nested(130, true)).get()),
              repeat("{m=[", most) + "{m=" + tooDeep + "}" + repeat("]}", most));
    // The depth is that of one rendering: the next one begins anew.
    EXPECT_EQ(textOf({recordOf("m", 0, *messageValue(nested(0, false)))}), "{m={a=1}}");
}

Bytes richImage() {
    const Bytes inner = nested(1, false);
    return imageOf({recordOf("s", 1, *stringValue("text")),
                    recordOf("u", 0, *numbersValue<uint8_t>(35, {1})),
                    recordOf("n", 0, *numbersValue<int32_t>(38, {1, 2})),
                    recordOf("t", 0, *stringArrayValue({"one", "two"})),
                    recordOf("m", 0, *messageValue(inner)),
                    recordOf("l", 0, *messageArrayValue({inner, inner})),
                    recordOf("w", 0, *subjectValue("A.B")),
                    recordOf("d", 0, *dateTimeValue(0, 1000)),
                    {2, 'x', 0, FIELD_XML, 2, 0, 9}});
}

constexpr const char* kRichText =
    "{s[1]=\"text\" u=[1] n=[1 2] t=[\"one\" \"two\"] m={m={a=1}} l=[{m={a=1}} {m={a=1}}] w=[A.B] "
    "d=1970-01-01 00:00:00.000001000Z x=[XML document: 1 bytes]}";

void expectMark(const pelmoMsg* msg, const ReferenceMark& before, uint32_t newBlocks) {
    const ReferenceMark now = msgMark(msg);
    EXPECT_EQ(now.ownedBlocks, before.ownedBlocks + newBlocks);
    EXPECT_EQ(now.heldBuffers, before.heldBuffers);
    EXPECT_EQ(now.subMessages, before.subMessages);
    EXPECT_EQ(now.bufferRefs, before.bufferRefs);
}

TEST(MessageText, LeavesOnlyItsTextBehind) {
    const Message msg = messageFrom(richImage());
    for (const bool read : {false, true}) {
        if (read) {
            // What was read earlier stays, a buffer that was replaced among it.
            const char* text = nullptr;
            pelmoMsg* inner = nullptr;
            ASSERT_EQ(pelmoMsg_GetString(msg.get(), "s", &text, 0), kStatusSuccess);
            ASSERT_EQ(pelmoMsg_AddNone(msg.get(), "z", 0), kStatusSuccess);
            ASSERT_EQ(pelmoMsg_GetMsg(msg.get(), "m", &inner, 0), kStatusSuccess);
            ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "z", 0), kStatusSuccess);
        }
        ReferenceMark before = msgMark(msg.get());
        const char* first = nullptr;
        const char* second = nullptr;
        ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &first), kStatusSuccess);
        expectMark(msg.get(), before, 1);
        ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &second), kStatusSuccess);
        expectMark(msg.get(), before, 2);
        EXPECT_STREQ(first, kRichText);
        EXPECT_STREQ(second, kRichText);
        EXPECT_NE(first, second);
        EXPECT_EQ(imageOf(msg.get()), richImage());
    }
    EXPECT_NE(msg->heldBuffers, nullptr);
}

TEST(MessageText, AnswersForWhatIsNone) {
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_ConvertToString(nullptr, &text), kStatusInvalidMessage);
    EXPECT_EQ(pelmoMsg_Print(nullptr), kStatusInvalidMessage);
    const Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_ConvertToString(msg.get(), nullptr), kStatusInvalidArgument);
    const Message corrupt = messageFrom(imageOf(Records{{0}}));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pelmoMsg_ConvertToString(corrupt.get(), &text), kStatusCorruptMessage);
        EXPECT_EQ(pelmoMsg_Print(corrupt.get()), kStatusCorruptMessage);
    }
    EXPECT_EQ(text, nullptr);
}

TEST(MessageText, GoesToTheErrorStreamByLines) {
    const Message msg = messageFrom(imageOf({recordOf("%s", 0, *i32(1))}));
    testing::internal::CaptureStderr();
    EXPECT_EQ(pelmoMsg_Print(msg.get()), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Print(msg.get()), kStatusSuccess);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "{%s=1}\n{%s=1}\n");
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

pelmoStatus becomePercent(pelmoMsgField& field, uint8_t, Disposition&) {
    field.type = FIELD_STRING;
    field.size = 5;
    field.data.pointer = "%s%n";
    return kStatusSuccess;
}

pelmoStatus becomeNothing(pelmoMsgField& field, uint8_t, Disposition&) {
    field.type = FIELD_STRING;
    field.size = 0;
    field.data.pointer = nullptr;
    return kStatusSuccess;
}

pelmoStatus failToConvert(pelmoMsgField&, uint8_t, Disposition&) {
    return kStatusConversionFailed;
}

TEST(MessageText, AsksTheApplicationForItsTypes) {
    constexpr uint8_t kType = 200;
    const Message msg = newMessage();
    ASSERT_EQ(pelmoMsg_SetOpaqueHandlers(kType), kStatusSuccess);
    pelmoMsgField field = blockValue(FIELD_OPAQUE, {1, 2, 3})->field();
    const Bytes bytes = {1, 2, 3};
    field.data.pointer = bytes.data();
    field.name = "v";
    field.type = kType;
    ASSERT_EQ(pelmoMsg_AddField(msg.get(), &field), kStatusSuccess);
    pelmoMsgField read;
    ASSERT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &read, 0), kStatusSuccess);
    EXPECT_EQ(read.type, kType);
    EXPECT_EQ(read.size, 3u);

    const struct {
        const char* text;
        FieldDecoder decoder;
        FieldConverter converter;
    } cases[] = {
        {"{v=[3 opaque bytes]}", fieldDecoders[kType], fieldConverters[kType]},
        {"{v=abc}", fieldDecoders[kType], becomeUnterminated},
        {"{v=%s%n}", fieldDecoders[kType], becomePercent},
        {"{v=}", fieldDecoders[kType], becomeNothing},
        {"{v=[NO CONVERTER AVAILABLE]}", fieldDecoders[kType], failToConvert},
        {"{v=[NO CONVERTER AVAILABLE]}", fieldDecoders[kType], nullptr},
        {"{v=[NO DECODER AVAILABLE]}", nullptr, nullptr},
    };
    for (const auto& [text, decoder, converter] : cases) {
        ASSERT_EQ(pelmoMsg_SetHandlers(kType, fieldEncoders[kType], decoder, converter),
                  kStatusSuccess);
        EXPECT_EQ(textOf(msg.get()), text);
    }
    ASSERT_EQ(pelmoMsg_SetHandlers(kType, nullptr, nullptr, nullptr), kStatusSuccess);
}

// Either there is no text, or it shows that something couldn't be read; nothing else is kept.
TEST(MessageText, AnswersForEachAllocationThatFails) {
    const Bytes image = richImage();
    const size_t failures = eachAllocationFails([&] {
        const Message msg = messageFrom(image);
        if (msg == nullptr) return;
        const char* text = nullptr;
        const pelmoStatus status = pelmoMsg_ConvertToString(msg.get(), &text);
        if (status != kStatusSuccess) {
            EXPECT_EQ(status, kStatusNoMemory);
            EXPECT_EQ(text, nullptr);
        } else if (allocationsFailed() == 0) {
            EXPECT_STREQ(text, kRichText);
        } else if (std::strcmp(text, kRichText) != 0) {
            EXPECT_NE(std::strstr(text, "[NO "), nullptr) << text;
        }
        expectMark(msg.get(), {0, 0, 0, 0}, status == kStatusSuccess ? 1 : 0);
        EXPECT_EQ(imageOf(msg.get()), image);
    });
    EXPECT_GT(failures, 40u);
}

}  // namespace
