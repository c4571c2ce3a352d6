#include <gtest/gtest.h>

#include <cstring>

#include "lib/base/bytes.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/msg/text.h"
#include "tests/support/message_values.h"

namespace {

const std::string kLongestName(kMaxNameChars, 'n');

pelmoMsgField named(pelmoMsgField field, const char* name, uint16_t id) {
    field.name = name;
    field.id = id;
    return field;
}

pelmoStatus add(pelmoMsg* msg, const char* name, const FieldValue& value) {
    const pelmoMsgField field = named(value.field(), name, 0);
    return pelmoMsg_AddField(msg, &field);
}

int32_t i32Of(pelmoMsg* msg, const char* name) {
    int32_t value = INT32_MIN;
    EXPECT_EQ(pelmoMsg_GetI32(msg, name, &value, 0), kStatusSuccess) << name;
    return value;
}

uint32_t countOf(pelmoMsg* msg) {
    uint32_t count = UINT32_MAX;
    EXPECT_EQ(pelmoMsg_GetNumFields(msg, &count), kStatusSuccess);
    return count;
}

struct RefusedCase {
    const char* what;
    pelmoMsgField field;
    pelmoStatus status;
};

// Refused, the message stays as it was.
using Change = pelmoStatus (*)(pelmoMsg*, const pelmoMsgField*);
void expectRefused(const Message& msg, Change change, const RefusedCase& row) {
    const Bytes image = imageOf(msg.get());
    const uint32_t count = countOf(msg.get());
    EXPECT_EQ(change(msg.get(), &row.field), row.status) << row.what;
    EXPECT_EQ(imageOf(msg.get()), image) << row.what;
    EXPECT_EQ(countOf(msg.get()), count) << row.what;
}

pelmoMsgField dateOf(const char* name, uint16_t id, pelmoMsgDateTime time) {
    return {.name = name, .size = 12, .data = {.dateTime = time}, .id = id, .type = FIELD_DATETIME};
}

TEST(Message, RefusesWhatCannotBeAddedAndStaysAsItWas) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "there", 1, 5), kStatusSuccess);
    const std::string tooLong = kLongestName + "n";
    const char* const texts[] = {"a", nullptr};
    pelmoMsg* const messages[] = {msg.get()};
    pelmoMsg* const noMessages[] = {nullptr};
    const pelmoMsgField number = fieldOf(FIELD_I32, 4, nullptr);
    const RefusedCase cases[] = {
        {"a type of the wire", fieldOf(WIRE_INT, 4, nullptr), kStatusInvalidType},
        {"an unknown type", fieldOf(99, 4, "x"), kStatusInvalidType},
        {"a long name", named(number, tooLong.c_str(), 0), kStatusInvalidName},
        {"an id alone", named(number, nullptr, 7), kStatusNotPermitted},
        {"count 0", fieldOf(FIELD_I32, 4, nullptr, 0), kStatusInvalidFieldCount},
        {"an id in use", named(number, "other", 5), kStatusIdInUse},
        {"no text", fieldOf(FIELD_STRING, 0, nullptr), kStatusInvalidArgument},
        {"a null text among texts", fieldOf(FIELD_STRINGARRAY, 0, texts, 2),
         kStatusInvalidArgument},
        {"no message", fieldOf(FIELD_MSGARRAY, 0, noMessages), kStatusInvalidArgument},
        {"size 0 of a number", fieldOf(FIELD_I32, 0, nullptr), kStatusInvalidSize},
        {"itself", fieldOf(FIELD_MSG, 0, msg.get()), kStatusNotPermitted},
        {"itself in a list", fieldOf(FIELD_MSGARRAY, 0, messages), kStatusNotPermitted},
        {"no prefix tells it", fieldOf(FIELD_OPAQUE, UINT32_MAX, "x"), kStatusInvalidSize},
        {"compressed, no prefix tells it", fieldOf(FIELD_XML, UINT32_MAX - 30, "x"),
         kStatusInvalidSize},
        {"no 32 bits tell it", fieldOf(FIELD_I64ARRAY, 8, "x", 1u << 30), kStatusInvalidSize},
        {"no image takes it", fieldOf(FIELD_OPAQUE, UINT32_MAX - 4, "x"), kStatusNoMemory},
        {"a date beyond 40 bits", dateOf("a", 0, {int64_t{1} << 39, 0}), kStatusInvalidArgument},
    };
    for (const RefusedCase& row : cases) {
        expectRefused(msg, pelmoMsg_AddField, row);
        if (row.field.id != 5) expectRefused(msg, pelmoMsg_UpdateField, row);
    }
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), kLongestName.c_str(), 1, 1), kStatusSuccess);
}

TEST(Message, RefusesAnUpdateThatFailsAndKeepsTheOldValue) {
    Message msg = newMessage();
    const Message inner = newMessage();
    const char* const texts[] = {"first", "second"};
    EXPECT_EQ(pelmoMsg_AddStringArray(msg.get(), "texts", texts, 2, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddString(msg.get(), "text", "old", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddMsg(msg.get(), "msg", inner.get(), 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddNone(msg.get(), "none", 0), kStatusSuccess);
    const pelmoMsgDateTime now = {1, 2};
    EXPECT_EQ(pelmoMsg_AddDateTime(msg.get(), "time", &now, 9), kStatusSuccess);
    const pelmoMsgDateTime late = {0, 1000000000};
    const char* const broken[] = {"something longer than it was", nullptr};
    const RefusedCase cases[] = {
        {"another type", named(fieldOf(FIELD_I32, 4, nullptr), "text", 0), kStatusInvalidType},
        {"an id that isn't its own", dateOf("time", 8, late), kStatusIdConflict},
        {"no text", named(fieldOf(FIELD_STRING, 0, nullptr), "text", 0), kStatusInvalidArgument},
        {"nothing at all", named(fieldOf(FIELD_NONE, 0, nullptr), "none", 0), kStatusInvalidSize},
        {"a null text", named(fieldOf(FIELD_STRINGARRAY, 0, broken, 2), "texts", 0),
         kStatusInvalidArgument},
        {"a date with too many nanoseconds", dateOf("time", 0, late), kStatusInvalidArgument},
        {"itself", named(fieldOf(FIELD_MSG, 0, msg.get()), "msg", 0), kStatusNotPermitted},
        {"too much", named(fieldOf(FIELD_STRING, UINT32_MAX, "x"), "text", 0), kStatusInvalidSize},
        {"count 0", named(fieldOf(FIELD_STRING, 0, "x", 0), "text", 0), kStatusInvalidFieldCount},
    };
    for (const RefusedCase& row : cases) {
        expectRefused(msg, pelmoMsg_UpdateField, row);
    }
}

TEST(Message, AnswersACorruptImageAgainAndAgain) {
    const Bytes record{2, 'a', 0, 11, 1, 5};
    for (const Bytes& rest : {Bytes{2, 'a', 0, 11, 1}, Bytes{2, 'a', 0, 11, 1, 5, 0},
                              Bytes{2, 'a', 0, 7, 122, 0xff, 0xff, 0xff, 0xff, 1}}) {
        const Bytes image = imageOf({record, rest});
        const Message msg = messageFrom(image);
        pelmoMsgField field;
        uint32_t number = 0;
        const char* text = nullptr;
        EXPECT_EQ(pelmoMsg_ConvertToString(msg.get(), &text), kStatusCorruptMessage);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(pelmoMsg_Print(msg.get()), kStatusCorruptMessage);
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(pelmoMsg_GetNumFields(msg.get(), &number), kStatusCorruptMessage);
            EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 0), kStatusCorruptMessage);
            EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "x", 1, 0), kStatusCorruptMessage);
            EXPECT_EQ(pelmoMsg_UpdateI32(msg.get(), "a", 1, 0), kStatusCorruptMessage);
            EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "a", 0), kStatusCorruptMessage);
        }
        EXPECT_EQ(imageOf(msg.get()), image);
        EXPECT_EQ(pelmoMsg_Reset(msg.get()), kStatusSuccess);  // no longer what it was
        EXPECT_EQ(countOf(msg.get()), 0u);
    }
}

// What a typed read gives points into the image, which therefore stays as it is.
TEST(Message, KeepsWhatATypedReadGaveThroughAChange) {
    for (const uint32_t chars : {0u, 1u, 117u, 118u, 119u, 120u, 200u}) {
        const std::string written(chars, 'v');
        const Message msg = newMessage();
        ASSERT_EQ(pelmoMsg_AddString(msg.get(), "text", written.c_str(), 0), kStatusSuccess);
        ASSERT_EQ(pelmoMsg_AddOpaque(msg.get(), "bytes", written.data(), chars, 0), kStatusSuccess);
        for (const bool both : {false, true}) {
            const char* text = nullptr;
            const void* bytes = written.data();
            uint32_t size = UINT32_MAX;
            ASSERT_EQ(pelmoMsg_GetOpaque(msg.get(), "bytes", &bytes, &size, 0), kStatusSuccess);
            if (both) {
                ASSERT_EQ(pelmoMsg_GetString(msg.get(), "text", &text, 0), kStatusSuccess);
            }
            for (const char* const next : {"other", written.c_str()}) {
                ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "text", 0), kStatusSuccess);
                ASSERT_EQ(pelmoMsg_AddString(msg.get(), "text", next, 0), kStatusSuccess);
            }
            EXPECT_EQ(size, chars);
            EXPECT_EQ(bytes == nullptr, chars == 0);
            EXPECT_TRUE(chars == 0 || std::memcmp(bytes, written.data(), chars) == 0);
            EXPECT_TRUE(!both || text == written);
        }
    }
}

TEST(Message, ReadsWhatOthersWriteOtherwise) {
    const Message msg = messageFrom(imageOf({
        {4, 'a', 0, 0, 5, 11, 1, 1},     // an id ...
        {4, 'b', 0, 0, 5, 11, 1, 2},     // ... twice
        {2, 'c', 0, 18, 2, 0xff, 0xfe},  // a code of the application, width from the size
        {2, 'd', 0, 7, 121, 0, 3, 9},    // a class larger than the value needs
        {2, 'e', 0, 99, 1, 0},           // a type that nobody knows
        {3, 0, 0, 1, 11, 1, 3},          // an id with an empty name
        {0, 11, 1, 4},                   // no name
    }));
    EXPECT_EQ(countOf(msg.get()), 7u);
    pelmoMsgField field;
    const auto read = [&](const char* name, uint16_t id) {
        return pelmoMsg_GetFieldEx(msg.get(), name, &field, id);
    };
    EXPECT_EQ(i32Of(msg.get(), "a"), 1);
    ASSERT_EQ(read(nullptr, 5), kStatusSuccess);
    EXPECT_EQ(field.data.i8, 2);
    ASSERT_EQ(read("c", 0), kStatusSuccess);
    EXPECT_EQ(field.type, FIELD_I16);
    ASSERT_EQ(read("d", 0), kStatusSuccess);
    EXPECT_TRUE(fieldHolds(field, *blockValue(FIELD_OPAQUE, {9})));
    EXPECT_EQ(read("e", 0), kStatusInvalidType);
    ASSERT_EQ(read(nullptr, 1), kStatusSuccess);
    EXPECT_STREQ(field.name, "");
    ASSERT_EQ(read(nullptr, 0), kStatusSuccess);
    EXPECT_EQ(field.name, nullptr);
    // An update writes what a writer of today would.
    EXPECT_EQ(pelmoMsg_UpdateI16(msg.get(), "c", 7, 0), kStatusSuccess);
    EXPECT_EQ(i32Of(msg.get(), "c"), 7);
}

TEST(Message, BelievesNoHead) {
    Bytes bytes = imageOf(std::vector<Bytes>{});
    pelmoMsg* out = nullptr;
    EXPECT_EQ(pelmoMsg_CreateFromBytes(&out, nullptr), kStatusInvalidMessage);
    for (const uint8_t length : Bytes{0, 4, 7}) {
        bytes[3] = length;
        EXPECT_EQ(pelmoMsg_CreateFromBytes(&out, bytes.data()), kStatusCorruptMessage);
    }
    bytes[4] = 0;
    EXPECT_EQ(pelmoMsg_CreateFromBytes(&out, bytes.data()), kStatusInvalidMessage);

    Buffer* buffer = bufferCreate(40);
    ASSERT_NE(buffer, nullptr);
    std::memset(buffer->data, 0, 40);
    const struct {
        uint32_t offset, length, magic;
        pelmoStatus status;
    } heads[] = {
        {0, 40, kMessageMagic, kStatusSuccess},
        {0, 41, kMessageMagic, kStatusCorruptMessage},
        {8, 33, kMessageMagic, kStatusCorruptMessage},
        {8, UINT32_MAX, kMessageMagic, kStatusCorruptMessage},
        {8, 7, kMessageMagic, kStatusCorruptMessage},
        {8, 8, kMessageDead, kStatusInvalidMessage},
        {32, 8, kMessageMagic, kStatusSuccess},
    };
    for (const auto& [offset, length, magic, status] : heads) {
        storeBe32At(buffer->data + offset, length);
        storeBe32At(buffer->data + offset + 4, magic);
        out = nullptr;
        EXPECT_EQ(msgCreateOverBuffer(&out, buffer, offset), status);
        EXPECT_EQ(Message(out) != nullptr, status == kStatusSuccess);
    }
    for (const uint32_t offset : {33u, 40u, 41u, UINT32_MAX}) {
        EXPECT_EQ(msgCreateOverBuffer(&out, buffer, offset), kStatusInvalidMessage);
    }
    EXPECT_EQ(buffer->refCount.load(), 1u);
    bufferRelease(buffer);
}

TEST(Message, LivesAsLongAsItHasHolders) {
    pelmoMsg* msg = newMessage().release();
    msgRetain(msg);
    EXPECT_EQ(pelmoMsg_Detach(msg), kStatusNotPermitted);
    EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Destroy(msg), kStatusInvalidMessage);
    msgRelease(msg);

    Message outer = newMessage();
    EXPECT_EQ(add(outer.get(), "in", *messageValue(imageOf({recordOf("x", 0, *stringValue("y"))}))),
              kStatusSuccess);
    pelmoMsg* inner = nullptr;
    ASSERT_EQ(pelmoMsg_GetMsg(outer.get(), "in", &inner, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Destroy(inner), kStatusNotPermitted);
    EXPECT_EQ(pelmoMsg_Detach(inner), kStatusSuccess);
    const Message detached(inner);
    outer.reset();
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_GetString(inner, "x", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "y");
    EXPECT_EQ(pelmoMsg_AddI32(inner, "z", 3, 0), kStatusSuccess);
    EXPECT_STREQ(text, "y");
}

TEST(Message, HandsOutItsBytesAndItsRoom) {
    const Message msg = newMessage();
    EXPECT_EQ(imageOf(msg.get()), (Bytes{0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa}));
    Bytes bytes(8);
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), bytes.data(), 7), kStatusInsufficientBuffer);
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), bytes.data(), 8), kStatusSuccess);
    EXPECT_EQ(bytes, imageOf(msg.get()));
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), nullptr, 8), kStatusInvalidArgument);
    EXPECT_EQ(msgFlushBuffer(nullptr), nullptr);

    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 36), kStatusSuccess);
    EXPECT_EQ(msg->capacity, 100u);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), -93), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), INT32_MIN), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), -92), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "a", 9, 'a'), kStatusSuccess);  // from no room at all
    msgSetLimitAdvisory(msg.get());
    pelmoMsg* shared = nullptr;
    ASSERT_EQ(msgShareCopy(&shared, msg.get()), kStatusSuccess);
    EXPECT_TRUE(msgIsLimitAdvisory(shared));
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 100), kStatusSuccess);  // not under the other one
    EXPECT_NE(msg->buffer, shared->buffer);
    EXPECT_EQ(i32Of(shared, "a"), 9);
    EXPECT_EQ(pelmoMsg_Destroy(shared), kStatusSuccess);
}

// What the random steps of the model don't ask for.
TEST(Message, TellsOddKeysApart) {
    const Message msg = newMessage();
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_EQ(pelmoMsg_AddI32(msg.get(), name, name[0], static_cast<uint16_t>(name[0])),
                  kStatusSuccess);
    }
    pelmoMsgField field;
    EXPECT_EQ(pelmoMsg_GetFieldInstance(msg.get(), "a", &field, 0), kStatusInvalidInstance);
    EXPECT_EQ(pelmoMsg_RemoveFieldInstance(msg.get(), "a", 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "c", 0), kStatusSuccess);
    EXPECT_EQ(msg->indexValid, 1u);  // the last one goes without a parse
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "c2", 1, 'c'), kStatusSuccess);  // its id is free again
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), nullptr, 'a'), kStatusSuccess);
    EXPECT_EQ(msg->indexValid, 0u);
    const Message noIds = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(noIds.get(), nullptr, 5, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_GetFieldEx(noIds.get(), nullptr, &field, 3), kStatusNotFound);
}

// Either would take hours if a step went over all that is there.
TEST(Message, TakesAndWalksManyFieldsInLinearTime) {
    Message built = newMessage();
    for (uint32_t i = 0; i < 300000; ++i) {
        ASSERT_EQ(pelmoMsg_AddI32(built.get(), "n", 1, static_cast<uint16_t>(i < 65536 ? i : 0)),
                  kStatusSuccess);
    }
    EXPECT_EQ(countOf(built.get()), 300000u);

    Bytes tiny(16u << 20);
    for (size_t at = kMessageHeadBytes; at < tiny.size(); at += 4) {
        tiny[at + 1] = FIELD_U8;
        tiny[at + 2] = 1;
    }
    storeBe32At(tiny.data(), static_cast<uint32_t>(tiny.size()));
    storeBe32At(tiny.data() + 4, kMessageMagic);
    const Message msg = messageFrom(tiny);
    EXPECT_EQ(countOf(msg.get()), (tiny.size() - kMessageHeadBytes) / 4);
    pelmoMsgField field;
    for (uint32_t i = 0; i < msg->fieldCount; i += 1000) {
        ASSERT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, i), kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, msg->fieldCount), kStatusNotFound);
}

TEST(Message, ReadsAsTheTypeAskedFor) {
    const Message msg = newMessage();
    const int32_t numbers[] = {-1, 2};
    const char* const texts[] = {"a"};
    EXPECT_EQ(pelmoMsg_AddI32Array(msg.get(), "n", numbers, 2, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddStringArray(msg.get(), "t", texts, 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "x", "A..B", 0), kStatusInvalidSubject);
    EXPECT_EQ(add(msg.get(), "open", *blockValue(FIELD_STRING, {'1', '2'})), kStatusSuccess);
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_GetString(msg.get(), "open", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "12");
    EXPECT_EQ(pelmoMsg_GetSubjectText(msg.get(), "sub", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "A.B");
    uint64_t wide = 0;
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "open", &wide, 0), kStatusSuccess);
    EXPECT_EQ(wide, 12u);
    const int64_t* widened = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(pelmoMsg_GetI64Array(msg.get(), "n", &widened, &count, 0), kStatusSuccess);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(widened[0], -1);

    const ReferenceMark before = msgMark(msg.get());
    const void* bytes = nullptr;
    pelmoMsg* nested = nullptr;
    pelmoMsgDateTime time;
    const char* const* list = nullptr;
    EXPECT_EQ(pelmoMsg_GetMsg(msg.get(), "open", &nested, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetOpaque(msg.get(), "open", &bytes, &count, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetDateTime(msg.get(), "n", &time, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetI32Array(msg.get(), "t", nullptr, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetStringArray(msg.get(), "open", &list, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "t", &wide, 0), kStatusConversionFailed);
    const ReferenceMark behind = msgMark(msg.get());
    EXPECT_EQ(std::memcmp(&before, &behind, sizeof before), 0);  // nothing was left behind
}

}  // namespace
