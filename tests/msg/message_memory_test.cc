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
#include "tests/support/pool_manager.h"

namespace {

template <typename Work>
size_t allocationsOf(Work work) {
    FailAlloc count{.after = kNeverFails};
    work();
    allocationsHeal();
    return allocationsCounted();
}

const char* const kTenNames[] = {"alpha",   "bravo", "charlie", "delta", "echo",
                                 "foxtrot", "golf",  "hotel",   "india", "juliet"};

// Every other one with an id, if any.
void addTen(pelmoMsg* msg, bool withIds) {
    uint16_t id = 0;
    for (const char* name : kTenNames) {
        ++id;
        ASSERT_EQ(pelmoMsg_AddI32(msg, name, id, withIds && id % 2 == 0 ? id : 0), kStatusSuccess);
    }
}

// Something of each kind, and of each that a read keeps track of.
Bytes richImage() {
    const Bytes innermost =
        imageOf({recordOf("a", 0, *scalarValue(FIELD_I32, &FieldData::i32, 1))});
    const Bytes inner = imageOf({recordOf("m", 0, *messageValue(innermost))});
    return imageOf({
        recordOf("s", 1, *stringValue("text")),
        recordOf("u", 0, *numbersValue<uint8_t>(FIELD_U8ARRAY, {1})),
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
        recordOf("o", 0, *blockValue(FIELD_OPAQUE, {})),
        recordOf("b", 0, *scalarValue(FIELD_BOOL, &FieldData::boolean, 1u)),
        recordOf("i", 0, *scalarValue(FIELD_I64, &FieldData::i64, INT64_MIN)),
        recordOf("f", 0, *scalarValue(FIELD_F32, &FieldData::f32, 0.1f)),
        recordOf("a", 0, *scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, 0u)),
        recordOf("z", 0, *noneValue()),
    });
}

constexpr const char* kRichText =
    "{s[1]=\"text\" u=[1] n=[1 2] t=[\"one\" \"two\"] m[3]={m={a=1}} l=[{m={a=1}} {m={a=1}}] "
    "w=[A.B] d=1970-01-01 00:00:00.000001000Z open=\"12\" x=[XML document: 1 bytes] "
    "y=[XML document: 3 bytes] o=[0 opaque bytes] b=true i=-9223372036854775808 f=0.1 a=0.0.0.0 "
    "z=[NONE]}";

void receiveAndRead(Buffer* buffer) {
    pelmoMsg* msg = nullptr;
    ASSERT_EQ(msgCreateOverBuffer(&msg, buffer, 0), kStatusSuccess);
    int64_t wide = 0;
    double real = 0;
    EXPECT_EQ(pelmoMsg_GetI64(msg, "echo", &wide, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_GetF64(msg, "juliet", &real, 0), kStatusSuccess);
    EXPECT_EQ(static_cast<double>(wide) + real, 5 + 10);
    EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
}

TEST(MessageMemory, BuildsAnewAndReadsAReceivedMessageWithoutTheHeap) {
    const OpenPools open(1);
    ASSERT_EQ(msgPoolCreate(), kStatusSuccess);
    {
        const Message sent = newMessage();
        addTen(sent.get(), true);
        EXPECT_EQ(allocationsOf([&] {
                      ASSERT_EQ(pelmoMsg_Reset(sent.get()), kStatusSuccess);
                      addTen(sent.get(), true);
                  }),
                  0u);
        ASSERT_EQ(pelmoMsg_Reset(sent.get()), kStatusSuccess);
        addTen(sent.get(), false);
        Buffer* buffer = msgFlushBuffer(sent.get());
        receiveAndRead(buffer);
        EXPECT_EQ(allocationsOf([&] { receiveAndRead(buffer); }), 0u);
        EXPECT_EQ(buffer->refCount.load(), 1u);
    }
    msgPoolDestroy();
}

pelmoStatus readAll(pelmoMsg* msg) {
    uint32_t count = 0;
    pelmoStatus status = pelmoMsg_GetNumFields(msg, &count);
    for (uint32_t i = 0; i < count && status == kStatusSuccess; ++i) {
        pelmoMsgField field;
        status = pelmoMsg_GetFieldByIndex(msg, &field, i);
    }
    return status;
}

// Either there is no text, or it is whole. Nothing else is left behind, and what was read ahead of
// it stays.
pelmoStatus becomeText(pelmoMsg* msg) {
    pelmoMsg* inner = nullptr;
    const pelmoStatus read = pelmoMsg_GetMsg(msg, "m", &inner, 0);
    if (read != kStatusSuccess) return read;
    ReferenceMark expected = msgMark(msg);
    const char* text = nullptr;
    const pelmoStatus status = pelmoMsg_ConvertToString(msg, &text);
    EXPECT_EQ(status, text != nullptr ? kStatusSuccess : kStatusNoMemory);
    if (text != nullptr) {
        ++expected.ownedBlocks;
        EXPECT_STREQ(text, kRichText);
    }
    const ReferenceMark now = msgMark(msg);
    EXPECT_EQ(std::memcmp(&now, &expected, sizeof now), 0);
    allocationsHeal();
    EXPECT_EQ(textOf(inner), "{m={a=1}}");
    return status;
}

// A step on a message, run with each of its allocations failing in turn. Those that change fields
// or addresses are the model's.
struct FailingStep {
    const char* what;
    Bytes image;
    std::function<pelmoStatus(pelmoMsg*)> run;
    bool keepsSomeReads = false;
};

void runStep(const FailingStep& step) {
    const Message msg = messageFrom(step.image);
    if (msg == nullptr) return;
    const ReferenceMark before = msgMark(msg.get());
    const size_t failedBefore = allocationsFailed();
    const pelmoStatus status = step.run(msg.get());
    const bool failed = allocationsFailed() != failedBefore;
    allocationsHeal();
    if (status == kStatusSuccess) return;  // perhaps it went on with what it had
    EXPECT_TRUE(failed);
    // A "data" that is no message: whatever is wrong with it, it can't be wrapped.
    EXPECT_TRUE(status == kStatusNoMemory || status == kStatusInvalidMessage);
    EXPECT_EQ(msg->dataOffset, 0u);
    EXPECT_EQ(imageOf(msg.get()), step.image);
    const ReferenceMark behind = msgMark(msg.get());
    EXPECT_TRUE(step.keepsSomeReads || std::memcmp(&before, &behind, sizeof before) == 0);
    EXPECT_EQ(step.run(msg.get()), kStatusSuccess);
}

template <typename Make>
auto making(Make make) {
    return [make](pelmoMsg*) {
        pelmoMsg* made = nullptr;
        const pelmoStatus status = make(&made);
        EXPECT_EQ(Message(made) != nullptr, status == kStatusSuccess);
        return status;
    };
}

TEST(MessageMemory, AnswersEachFailedAllocationAndStaysAsItWas) {
    const Bytes rich = richImage();
    const std::string large(50000, 'l');
    const SharedValue value = stringValue(large);
    const Bytes foreign = field("x", *value, 7);
    const char* text = nullptr;
    int32_t number = 0;
    const int64_t* wide = nullptr;
    uint32_t count = 0;
    const FailingStep steps[] = {
        {"read all", rich, readAll, true},
        {"text", rich, becomeText, true},
        {"compress", rich, [&](auto* msg) { return pelmoMsg_AddXml(msg, "x", "text", 5, 0); }},
        {"expand", rich, [](auto* msg) { return pelmoMsg_Expand(msg, 1000); }},
        {"convert", rich, [&](auto* msg) { return pelmoMsg_GetString(msg, "n", &text, 0); }},
        {"convert a date", rich, [&](auto* msg) { return pelmoMsg_GetString(msg, "d", &text, 0); }},
        {"convert a subject", rich,
         [&](auto* msg) { return pelmoMsg_GetString(msg, "w", &text, 0); }},
        {"convert a text without its NUL", rich,
         [&](auto* msg) { return pelmoMsg_GetI32(msg, "open", &number, 0); }},
        {"widen", rich,
         [&](auto* msg) { return pelmoMsg_GetI64Array(msg, "n", &wide, &count, 0); }},
        {"create", rich, making([](pelmoMsg** out) { return pelmoMsg_Create(out); })},
        {"strip", outer(foreign + kReturnR + kData + kApp), msgStripEnvelope},
        {"open, no data", outer(foreign), msgOpenEnvelope},
        {"open, data moves", outer(kData + kApp + foreign), msgOpenEnvelope},
        {"open, data is wrapped", outer(field("data", *value)), msgOpenEnvelope},
        {"create enveloped", rich,
         making([](pelmoMsg** out) { return msgCreateEnveloped(out, "A", "B", 1); })},
        {"create with fields", rich, making([&](pelmoMsg** out) {
             const pelmoMsgField fields[2] = {value->field(), value->field()};
             return msgCreateWithFields(out, "A", "B", fields, 2);
         })},
    };
    for (const FailingStep& step : steps) {
        SCOPED_TRACE(step.what);
        EXPECT_GT(eachAllocationFails([&] { runStep(step); }), 1u);
    }
}

TEST(MessageMemory, TakesWhatWasReadOfItself) {
    const Message msg = messageFrom(richImage());
    pelmoMsgField text;
    pelmoMsg* inner = nullptr;
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), "s", &text, 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_GetMsg(msg.get(), "m", &inner, 0), kStatusSuccess);
    text.id = 0;
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(pelmoMsg_AddField(msg.get(), &text), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_AddMsg(msg.get(), "again", inner, 0), kStatusSuccess);
    }
    ASSERT_EQ(pelmoMsg_GetMsg(msg.get(), "again", &inner, 0), kStatusSuccess);
    EXPECT_EQ(textOf(inner), "{m={a=1}}");
    EXPECT_STREQ(static_cast<const char*>(text.data.pointer), "text");
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
    Message outer = messageFrom(nestOf(100000));
    Buffer* buffer = outer->buffer;
    bufferRetain(buffer);
    pelmoMsg* inner = outer.get();
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(pelmoMsg_GetMsg(inner, nullptr, &inner, 0), kStatusSuccess);
    }
    msgRetain(inner);
    outer.reset();
    EXPECT_EQ(buffer->refCount.load(), 2u);  // the innermost alone has another holder
    msgRelease(inner);
    EXPECT_EQ(buffer->refCount.load(), 1u);
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
