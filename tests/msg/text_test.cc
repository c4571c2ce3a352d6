// The line of text that stands for a message.

#include "lib/msg/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/msg/codec_internal.h"
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

TEST(MessageText, ShowsNamesAndValuesAsTheyAre) {
    const struct {
        const char* text;
        Records records;
    } cases[] = {
        {"{}", {}},
        {"{NULL=7 =7}", {recordOf(nullptr, 0, *i32(7)), recordOf("", 0, *i32(7))}},
        {"{[9]=7 a[65535]=1}", {recordOf("", 9, *i32(7)), recordOf("a", 65535, *i32(1))}},
        {"{%s%n[1]=\"%d%s%n\"}", {recordOf("%s%n", 1, *stringValue("%d%s%n"))}},
        {"{a=1}", {{5, 'a', 0, 'b', 'c', 0, 11, 1, 1}}},  // a name with a NUL inside
        {"{=\"\" =\"abc\"}",
         {recordOf("", 0, *blockValue(FIELD_STRING, {})),
          recordOf("", 0, *blockValue(FIELD_STRING, {'a', 'b', 'c'}))}},
        {"{=\"ab\"}", {recordOf("", 0, *blockValue(FIELD_STRING, {'a', 'b', 0, 'c', 'd'}))}},
        {"{v=[A.B.C]}", {recordOf("v", 0, *subjectValue("A.B.C"))}},  // its blank is the end
        {"{v=[]}", {recordOf("v", 0, *messageArrayValue({}))}},
    };
    for (const auto& [text, records] : cases) {
        EXPECT_EQ(textOf(records), text);
    }
    for (size_t chars = 0; chars < 120; ++chars) {  // past each growth of the text
        const std::string name(chars, 'n');
        EXPECT_EQ(textOf({recordOf(name.c_str(), 0, *i32(7))}), "{" + name + "=7}");
    }
    const std::string large(100000, 'l');
    EXPECT_EQ(textOf({recordOf("l", 0, *stringValue(large))}), "{l=\"" + large + "\"}");
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
        {noDecoder, {WIRE_INT, 3, 1, 2, 3}},
        {noDecoder, {FIELD_STRINGARRAY, 4, 0, 0, 0, 1}},
        {noConverter, {FIELD_MSG, 122, 0, 0, 0, 9, 0x99, 0x55, 0xee, 0xaa, 1}},  // doesn't walk
        {noDecoder, {FIELD_MSGARRAY, 4, 0, 0, 0, 1}},
        {noConverter, {FIELD_MSGARRAY, 13, 0, 0, 0, 1, 0, 0, 0, 9, 0x99, 0x55, 0xee, 0xaa, 1}},
    };
    for (const auto& [text, typeAndValue] : cases) {
        Bytes record = {2, 'v', 0};
        record.insert(record.end(), typeAndValue.begin(), typeAndValue.end());
        EXPECT_EQ(textOf({record, recordOf("a", 0, *i32(1))}), text) << int{typeAndValue[0]};
    }
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
                    {2, 'x', 0, FIELD_XML, 2, 0, 9},
                    recordOf("o", 0, *blockValue(FIELD_OPAQUE, {})),
                    recordOf("b", 0, *scalarValue(FIELD_BOOL, &FieldData::boolean, 1u)),
                    recordOf("i", 0, *scalarValue(FIELD_I64, &FieldData::i64, INT64_MIN)),
                    recordOf("f", 0, *scalarValue(FIELD_F32, &FieldData::f32, 0.1f)),
                    recordOf("a", 0, *scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, 0u)),
                    recordOf("z", 0, *noneValue())});
}

constexpr const char* kRichText =
    "{s[1]=\"text\" u=[1] n=[1 2] t=[\"one\" \"two\"] m={m={a=1}} l=[{m={a=1}} {m={a=1}}] w=[A.B] "
    "d=1970-01-01 00:00:00.000001000Z x=[XML document: 1 bytes] o=[0 opaque bytes] b=true "
    "i=-9223372036854775808 f=0.1 a=0.0.0.0 z=[NONE]}";

TEST(MessageText, AnswersForWhatIsNone) {
    const char* text = nullptr;
    const Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_ConvertToString(msg.get(), nullptr), kStatusInvalidArgument);
    const Message corrupt = messageFrom(imageOf(Records{{0}}));
    EXPECT_EQ(pelmoMsg_ConvertToString(corrupt.get(), &text), kStatusCorruptMessage);
    EXPECT_EQ(pelmoMsg_Print(corrupt.get()), kStatusCorruptMessage);
    EXPECT_EQ(text, nullptr);
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

TEST(MessageText, AsksTheApplicationForItsTypes) {
    constexpr uint8_t kType = 200;
    const Message msg = newMessage();
    ASSERT_EQ(pelmoMsg_SetOpaqueHandlers(kType), kStatusSuccess);
    const SharedValue bytes = blockValue(FIELD_OPAQUE, {1, 2, 3});
    pelmoMsgField field = bytes->field();
    field.name = "v";
    field.type = kType;
    ASSERT_EQ(pelmoMsg_AddField(msg.get(), &field), kStatusSuccess);

    const struct {
        const char* text;
        FieldDecoder decoder;
        FieldConverter converter;
    } cases[] = {
        {"{v=[3 opaque bytes]}", fieldDecoders[kType], fieldConverters[kType]},
        {"{v=abc}", fieldDecoders[kType], becomeUnterminated},
        {"{v=[NO CONVERTER AVAILABLE]}", fieldDecoders[kType], fieldConverters[FIELD_I32ARRAY]},
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

// Either there is no text, or it shows that something couldn't be read. Nothing else is left
// behind, and what was read ahead of it stays.
TEST(MessageText, AnswersForEachAllocationThatFails) {
    const Bytes image = richImage();
    const size_t failures = eachAllocationFails([&] {
        const Message msg = messageFrom(image);
        pelmoMsg* inner = nullptr;
        if (msg == nullptr || pelmoMsg_GetMsg(msg.get(), "m", &inner, 0) != kStatusSuccess) return;
        ReferenceMark expected = msgMark(msg.get());
        const char* text = nullptr;
        const size_t failedBefore = allocationsFailed();
        const pelmoStatus status = pelmoMsg_ConvertToString(msg.get(), &text);
        if (status != kStatusSuccess) {
            EXPECT_EQ(status, kStatusNoMemory);
            EXPECT_EQ(text, nullptr);
        } else if (allocationsFailed() == failedBefore) {
            EXPECT_STREQ(text, kRichText);
        } else if (std::strcmp(text, kRichText) != 0) {
            EXPECT_NE(std::strstr(text, "[NO "), nullptr) << text;
        }
        if (status == kStatusSuccess) ++expected.ownedBlocks;
        const ReferenceMark now = msgMark(msg.get());
        EXPECT_EQ(std::memcmp(&now, &expected, sizeof now), 0);
        allocationsHeal();
        EXPECT_EQ(textOf(inner), "{m={a=1}}");
        EXPECT_EQ(imageOf(msg.get()), image);
    });
    EXPECT_GT(failures, 40u);
}

}  // namespace
