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

Bytes richImage() {
    const Bytes innermost = imageOf({recordOf("a", 0, *i32(1))});
    const Bytes inner = imageOf({recordOf("m", 0, *messageValue(innermost))});
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
