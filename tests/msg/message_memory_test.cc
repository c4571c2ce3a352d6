// What messages take from the heap, what they do when it gives nothing, and what they keep.

#include <cstring>
#include <functional>

#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "tests/support/envelope_bytes.h"
#include "tests/support/fail_alloc.h"

namespace {

template <typename Work>
size_t allocationsOf(Work work) {
    FailAlloc count{.after = kNeverFails};
    work();
    allocationsHeal();
    return allocationsCounted();
}

// Something of each kind, and of each that a read keeps track of.
Bytes richImage() {
    const Bytes innermost =
        imageOf({recordOf("a", 0, *scalarValue(FIELD_I32, &FieldData::i32, 1))});
    const Bytes inner = imageOf({recordOf("m", 0, *messageValue(innermost))});
    return imageOf({
        recordOf("s", 1, *stringValue("text")),
        recordOf("n", 0, *numbersValue<int32_t>(FIELD_I32ARRAY, {1, 2})),
        recordOf("t", 0, *stringArrayValue({"one", "two"})),
        recordOf("m", 3, *messageValue(inner)),
        recordOf("l", 0, *messageArrayValue({inner, inner})),
        recordOf("w", 0, *subjectValue("A.B")),
        recordOf("d", 0, *dateTimeValue(0, 1000)),
        recordOf("open", 0, *blockValue(FIELD_STRING, {'1', '2'})),
        {2, 'x', 0, FIELD_XML, 2, 0, 9},  // stored as it is
        // A document of three bytes, compressed.
        {2, 'y', 0, FIELD_XML, 12, 3, 0x78, 0x9c, 0x63, 0x64, 0x62, 6, 0, 0, 0xd, 0, 7},
        recordOf("z", 0, *noneValue()),
    });
}

constexpr const char* kRichText =
    "{s[1]=\"text\" n=[1 2] t=[\"one\" \"two\"] m[3]={m={a=1}} l=[{m={a=1}} {m={a=1}}] "
    "w=[A.B] d=1970-01-01 00:00:00.000001000Z open=\"12\" x=[XML document: 1 bytes] "
    "y=[XML document: 3 bytes] z=[NONE]}";

pelmoStatus readAll(pelmoMsg* msg) {
    uint32_t count = 0;
    pelmoStatus status = pelmoMsg_GetNumFields(msg, &count);
    for (uint32_t i = 0; i < count && status == kStatusSuccess; ++i) {
        pelmoMsgField field;
        status = pelmoMsg_GetFieldByIndex(msg, &field, i);
    }
    return status;
}

// Either there is no text, or it is whole. Nothing else is kept, and what was read before stays.
pelmoStatus becomeText(pelmoMsg* msg) {
    pelmoMsg* inner = nullptr;
    const pelmoStatus read = pelmoMsg_GetMsg(msg, "m", &inner, 0);
    if (read != kStatusSuccess) return read;
    ReferenceMark expected = msgMark(msg);
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    EXPECT_EQ(status, text != nullptr ? kStatusSuccess : kStatusNoMemory);
    expected.ownedBlocks += text != nullptr ? 1 : 0;
    EXPECT_TRUE(text == nullptr || std::string(text) == kRichText);
    const ReferenceMark now = msgMark(msg);
    EXPECT_EQ(std::memcmp(&now, &expected, sizeof now), 0);
    allocationsHeal();
    EXPECT_EQ(textOf(inner), "{m={a=1}}");
    return status;
}

// A message keeps its fields, and the call succeeds once there is memory. Calls that change fields
// or addresses are the model's.
TEST(MessageMemory, AnswersEachFailedAllocationAndStaysAsItWas) {
    const Bytes rich = richImage();
    const SharedValue value = stringValue(std::string(50000, 'l'));
    const Bytes foreign = field("x", *value, 7);
    const char* text = nullptr;
    int32_t number = 0;
    const int64_t* wide = nullptr;
    uint32_t count = 0;
    const struct {
        const char* what;
        Bytes image;
        std::function<pelmoStatus(pelmoMsg*)> run;
    } steps[] = {
        {"read all", rich, readAll},
        {"text", rich, becomeText},
        {"expand", rich, [](auto* msg) { return pelmoMsg_Expand(msg, 1000); }},
        {"convert", rich, [&](auto* msg) { return pelmoMsg_GetString(msg, "n", &text, 0); }},
        {"convert a text without its NUL", rich,
         [&](auto* msg) { return pelmoMsg_GetI32(msg, "open", &number, 0); }},
        {"widen", rich,
         [&](auto* msg) { return pelmoMsg_GetI64Array(msg, "n", &wide, &count, 0); }},
        {"strip", outer(foreign + kReturnR + kData + kApp), msgStripEnvelope},
        {"open, data moves", outer(kData + kApp + foreign), msgOpenEnvelope},
        {"open, data is wrapped", outer(field("data", *value)), msgOpenEnvelope},
        {"create with fields", rich,
         [&](pelmoMsg*) {
             const pelmoMsgField fields[2] = {value->field(), value->field()};
             pelmoMsg* made = nullptr;
             const pelmoStatus status = msgCreateWithFields(&made, "A", "B", fields, 2);
             EXPECT_EQ(Message(made) != nullptr, status == kStatusSuccess);
             return status;
         }},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.what);
        const size_t failures = eachAllocationFails([&] {
            const Message msg = messageFrom(step.image);
            if (msg == nullptr || step.run(msg.get()) == kStatusSuccess) return;
            EXPECT_GT(allocationsFailed(), 0u);
            allocationsHeal();
            EXPECT_EQ(imageOf(msg.get()), step.image);
            EXPECT_EQ(step.run(msg.get()), kStatusSuccess);
        });
        EXPECT_GT(failures, 1u);
    }
}

// Messages within messages, each the one field of the one around it.
Bytes nestOf(uint32_t levels) {
    constexpr uint32_t kLevelBytes = kMessageHeadBytes + 3;
    Bytes image(kMessageHeadBytes + levels * kLevelBytes);
    for (uint32_t at = 0; at < image.size(); at += kLevelBytes) {
        storeBe32At(image.data() + at, static_cast<uint32_t>(image.size()) - at);
        storeBe32At(image.data() + at + 4, kMessageMagic);
        if (at + kLevelBytes > image.size()) break;
        image[at + 9] = FIELD_MSG;
        image[at + 10] = 122;
    }
    return image;
}

TEST(MessageMemory, LetsGoOfANestThatIsDeeperThanTheStack) {
    Message outermost = messageFrom(nestOf(100000));
    Buffer* buffer = outermost->buffer;
    bufferRetain(buffer);
    pelmoMsg* inner = outermost.get();
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(pelmoMsg_GetMsg(inner, nullptr, &inner, 0), kStatusSuccess);
    }
    msgRetain(inner);
    outermost.reset();
    EXPECT_EQ(buffer->refCount.load(), 2u);  // the innermost alone has another holder
    msgRelease(inner);
    bufferRelease(buffer);
}

// An image could be all messages of eight bytes, objects are some hundreds each.
TEST(MessageMemory, BoundsTheObjectsThatReadsMake) {
    const Bytes empty = imageOf(std::vector<Bytes>{});
    Bytes list = {0, FIELD_MSGARRAY, 122, 0, 0, 0, 0, 0, 0, 0, 0};
    storeBe32At(list.data() + 3, 8 + 8 * (kMostSubMessages + 1));
    storeBe32At(list.data() + 7, kMostSubMessages + 1);
    for (uint32_t i = 0; i <= kMostSubMessages; ++i) {
        list.insert(list.end(), empty.begin(), empty.end());
    }
    const Message msg = messageFrom(imageOf({list, recordOf("m", 0, *messageValue(empty))}));
    pelmoMsgField field;
    EXPECT_EQ(allocationsOf([&] {
                  EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 0), kStatusNoMemory);
              }),
              3u);  // the list, and what would hold it
    EXPECT_EQ(msg->subMessages, nullptr);
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_ConvertToString(msg.get(), &text), kStatusSuccess);
    EXPECT_EQ(std::strlen(text), std::strlen("{NULL=[] m={}}") + 3 * kMostSubMessages + 2);

    for (uint32_t i = 0; i < kMostSubMessages; ++i) {
        ASSERT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 1), kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 1), kStatusNoMemory);
    msgCutBack(msg.get(), {});
    EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 1), kStatusSuccess);
}

}  // namespace
