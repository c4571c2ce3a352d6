#include "lib/msg/message.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_typed.h"
#include "tests/support/message_values.h"

namespace {

const std::string kLongestName(kMaxNameChars, 'n');

pelmoStatus add(pelmoMsg* msg, const char* name, const FieldValue& value, uint16_t id = 0) {
    pelmoMsgField field = value.field();
    field.name = name;
    field.id = id;
    return pelmoMsg_AddField(msg, &field);
}

pelmoStatus update(pelmoMsg* msg, const char* name, const FieldValue& value, uint16_t id = 0) {
    pelmoMsgField field = value.field();
    field.name = name;
    field.id = id;
    return pelmoMsg_UpdateField(msg, &field);
}

int32_t i32Of(pelmoMsg* msg, const char* name, uint16_t id = 0) {
    int32_t value = INT32_MIN;
    EXPECT_EQ(pelmoMsg_GetI32(msg, name, &value, id), kStatusSuccess) << name;
    return value;
}

uint32_t countOf(pelmoMsg* msg) {
    uint32_t count = UINT32_MAX;
    EXPECT_EQ(pelmoMsg_GetNumFields(msg, &count), kStatusSuccess);
    return count;
}

std::vector<SharedValue> scalarValues() {
    std::vector<SharedValue> values;
    for (const uint32_t truth : {0u, 1u}) {
        values.push_back(scalarValue(FIELD_BOOL, &FieldData::boolean, truth));
    }
    for (const int64_t number : {int64_t{0}, int64_t{-1}, INT64_MIN, INT64_MAX}) {
        values.push_back(scalarValue(FIELD_I64, &FieldData::i64, number));
        values.push_back(scalarValue(FIELD_U64, &FieldData::u64, static_cast<uint64_t>(number)));
    }
    for (const int32_t number : {-1, INT32_MIN, INT32_MAX}) {
        values.push_back(scalarValue(FIELD_I32, &FieldData::i32, number));
        values.push_back(scalarValue(FIELD_U32, &FieldData::u32, static_cast<uint32_t>(number)));
        values.push_back(
            scalarValue(FIELD_I16, &FieldData::i16, static_cast<int16_t>(number >> 16)));
        values.push_back(scalarValue(FIELD_U16, &FieldData::u16, static_cast<uint16_t>(number)));
        values.push_back(scalarValue(FIELD_I8, &FieldData::i8, static_cast<int8_t>(number >> 24)));
        values.push_back(scalarValue(FIELD_U8, &FieldData::u8, static_cast<uint8_t>(number)));
    }
    for (const double number :
         {0.0, -0.0, 1.5, DBL_MAX, DBL_TRUE_MIN, HUGE_VAL, -HUGE_VAL, std::nan("")}) {
        values.push_back(scalarValue(FIELD_F64, &FieldData::f64, number));
    }
    for (const float number : {-0.0f, FLT_MAX, FLT_TRUE_MIN, HUGE_VALF, NAN}) {
        values.push_back(scalarValue(FIELD_F32, &FieldData::f32, number));
    }
    values.push_back(scalarValue(FIELD_IPPORT16, &FieldData::ipPort16, uint16_t{0x4c1d}));
    values.push_back(scalarValue(FIELD_IPADDR32, &FieldData::ipAddr32, 0x0403020au));
    values.push_back(dateTimeValue(-(int64_t{1} << 39), 0));
    values.push_back(dateTimeValue((int64_t{1} << 39) - 1, 999999000));
    values.push_back(dateTimeValue(-1, 1000));
    values.push_back(noneValue());
    return values;
}

// Values at both sides of each size class.
std::vector<SharedValue> sizedValues() {
    std::vector<SharedValue> values;
    for (const size_t size : {1u, 119u, 120u, 29999u, 30000u}) {
        values.push_back(stringValue(std::string(size - 1, 's')));
        values.push_back(blockValue(FIELD_OPAQUE, patternBytes(size, 1)));
        values.push_back(blockValue(FIELD_XML, patternBytes(size, 2)));
        values.push_back(arrayValue(FIELD_I8ARRAY, 1, patternBytes(size, 3)));
        values.push_back(arrayValue(FIELD_U8ARRAY, 1, patternBytes(size, 4)));
        if (size > 4) values.push_back(stringArrayValue({std::string(size - 5, 'a')}));
    }
    values.push_back(blockValue(FIELD_OPAQUE, {}));
    const struct {
        uint8_t type;
        uint32_t width;
    } arrays[] = {{FIELD_I16ARRAY, 2}, {FIELD_U16ARRAY, 2}, {FIELD_I32ARRAY, 4},
                  {FIELD_U32ARRAY, 4}, {FIELD_I64ARRAY, 8}, {FIELD_U64ARRAY, 8},
                  {FIELD_F32ARRAY, 4}, {FIELD_F64ARRAY, 8}};
    for (const auto& array : arrays) {
        for (const size_t size : {8u, 112u, 120u, 29992u, 30000u}) {
            values.push_back(arrayValue(array.type, array.width, patternBytes(size, 5)));
        }
    }
    values.push_back(stringArrayValue({"", "b", ""}));
    values.push_back(subjectValue("A"));
    values.push_back(subjectValue((std::string(120, 'x') + "." + std::string(120, 'y')).c_str()));
    return values;
}

std::vector<SharedValue> nestedValues() {
    const Bytes empty = imageOf(std::vector<Bytes>{});
    const Bytes one = imageOf({recordOf("in", 3, *stringValue("inner"))});
    const Bytes large =
        imageOf({recordOf("x", 0, *blockValue(FIELD_OPAQUE, patternBytes(40000, 6)))});
    const Bytes deep = imageOf({recordOf("d", 0, *messageValue(one))});
    std::vector<SharedValue> values;
    for (const Bytes& image : {empty, one, large, deep}) {
        values.push_back(messageValue(image));
        values.push_back(messageArrayValue({image, one, empty}));
    }
    return values;
}

std::vector<SharedValue> allValues() {
    std::vector<SharedValue> values = scalarValues();
    for (const auto& more : {sizedValues(), nestedValues()}) {
        values.insert(values.end(), more.begin(), more.end());
    }
    return values;
}

void expectHolds(pelmoMsg* msg, const char* name, uint16_t id, const FieldValue& value) {
    pelmoMsgField field;
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg, name, &field, id), kStatusSuccess);
    EXPECT_TRUE(fieldHolds(field, value));
    EXPECT_EQ(field.id, id);
    EXPECT_STREQ(field.name, name);
}

// Other fields around it show what a wrong length does.
void expectAround(pelmoMsg* msg) {
    EXPECT_EQ(i32Of(msg, "before", 1), 11);
    EXPECT_EQ(i32Of(msg, "behind"), 22);
}

Message messageAround(const char* name, const FieldValue& value, uint16_t id) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "before", 11, 1), kStatusSuccess);
    EXPECT_EQ(add(msg.get(), name, value, id), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "behind", 22, 0), kStatusSuccess);
    return msg;
}

TEST(Message, CarriesEachValueThroughItsLife) {
    for (const SharedValue& value : allValues()) {
        SCOPED_TRACE(testing::Message() << "type " << +value->type << " size " << value->size
                                        << " count " << value->count);
        const char* name = kLongestName.c_str();
        constexpr uint16_t kId = 65535;
        const Message written = messageAround(name, *value, kId);
        if (value->type != FIELD_XML) {
            const Bytes middle = recordOf(name, kId, *value);
            const Bytes image = imageOf(written.get());
            const auto at = image.begin() + kMessageHeadBytes + 1 + 9 + 1 + 5;
            ASSERT_EQ(Bytes(at, at + static_cast<ptrdiff_t>(middle.size())), middle);
        }

        const Message parsed = messageFrom(imageOf(written.get()));
        pelmoMsg* copy = nullptr;
        ASSERT_EQ(pelmoMsg_CreateCopy(parsed.get(), &copy), kStatusSuccess);
        const Message copied(copy);
        for (pelmoMsg* msg : {written.get(), parsed.get(), copied.get()}) {
            expectHolds(msg, name, kId, *value);
            expectAround(msg);
        }

        if (value->type != FIELD_NONE) {
            EXPECT_EQ(update(parsed.get(), name, *value, kId), kStatusSuccess);
        }
        expectHolds(parsed.get(), name, kId, *value);
        expectAround(parsed.get());
        EXPECT_EQ(imageOf(parsed.get()), imageOf(written.get()));

        EXPECT_EQ(pelmoMsg_RemoveFieldEx(parsed.get(), nullptr, kId), kStatusSuccess);
        expectAround(parsed.get());
        EXPECT_EQ(countOf(parsed.get()), 2u);
    }
}

// Each size meets each other one, with something ahead, behind, and both.
TEST(Message, UpdatesToAnySizeAnywhere) {
    const char* const names[] = {"one", "two", "three"};
    for (const size_t from : {0u, 1u, 118u, 119u, 120u, 29999u, 30000u}) {
        for (const size_t to : {0u, 1u, 118u, 119u, 120u, 29999u, 30000u}) {
            for (const char* changed : names) {
                SCOPED_TRACE(testing::Message() << changed << " " << from << " to " << to);
                std::vector<SharedValue> values(3);
                Message msg = newMessage();
                for (size_t i = 0; i < 3; ++i) {
                    values[i] = blockValue(FIELD_OPAQUE, patternBytes(from + i, 7));
                    ASSERT_EQ(add(msg.get(), names[i], *values[i]), kStatusSuccess);
                }
                const SharedValue fresh = blockValue(FIELD_OPAQUE, patternBytes(to, 8));
                ASSERT_EQ(update(msg.get(), changed, *fresh), kStatusSuccess);
                EXPECT_EQ(msg->indexValid, 1u);  // offsets stay true without a parse
                std::vector<Bytes> records;
                for (size_t i = 0; i < 3; ++i) {
                    const FieldValue& value = names[i] == changed ? *fresh : *values[i];
                    records.push_back(recordOf(names[i], 0, value));
                    expectHolds(msg.get(), names[i], 0, value);
                }
                EXPECT_EQ(imageOf(msg.get()), imageOf(records));
            }
        }
    }
}

TEST(Message, BeginsEmpty) {
    const Message msg = newMessage();
    EXPECT_EQ(countOf(msg.get()), 0u);
    EXPECT_EQ(imageOf(msg.get()), (Bytes{0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa}));
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "a", -2, 7), kStatusSuccess);
    EXPECT_EQ(imageOf(msg.get()), (Bytes{0, 0, 0, 19, 0x99, 0x55, 0xee, 0xaa, 4, 'a', 0, 0, 7, 11,
                                         4, 0xff, 0xff, 0xff, 0xfe}));
    uint32_t capacity = 0;
    for (const uint32_t size : {0u, 31u, 32u, 33u, 5000u}) {
        pelmoMsg* made = nullptr;
        ASSERT_EQ(pelmoMsg_CreateEx(&made, size), kStatusSuccess);
        EXPECT_EQ(made->capacity, std::max(size, 32u));
        capacity += made->capacity;
        EXPECT_EQ(pelmoMsg_Destroy(made), kStatusSuccess);
    }
    EXPECT_GT(capacity, 0u);
}

struct LookupCase {
    const char* name;
    uint16_t id;
    pelmoStatus status;
    int32_t value;
};

TEST(Message, FindsByIdThenByName) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "plain", 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "six", 2, 6), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "last", 3, 65535), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "", 4, 1), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), nullptr, 5, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "plain", 6, 0), kStatusSuccess);
    const LookupCase cases[] = {
        {"plain", 0, kStatusSuccess, 1},
        {"plain", 9, kStatusSuccess, 1},  // one without an id passes for any that isn't known
        {"six", 0, kStatusSuccess, 2},
        {"six", 5, kStatusIdConflict, 0},
        {"six", 65535, kStatusSuccess, 3},  // the id wins
        {"none", 6, kStatusSuccess, 2},
        {nullptr, 65535, kStatusSuccess, 3},
        {"", 0, kStatusSuccess, 4},
        {nullptr, 0, kStatusSuccess, 5},
        {"none", 0, kStatusNotFound, 0},
        {"none", 9, kStatusNotFound, 0},
        {"plai", 0, kStatusNotFound, 0},
        {"plain ", 0, kStatusNotFound, 0},
    };
    const Message parsed = messageFrom(imageOf(msg.get()));
    for (pelmoMsg* each : {msg.get(), parsed.get()}) {
        for (const LookupCase& row : cases) {
            pelmoMsgField field;
            const pelmoStatus status = pelmoMsg_GetFieldEx(each, row.name, &field, row.id);
            ASSERT_EQ(status, row.status) << (row.name ? row.name : "(null)") << " " << row.id;
            if (status == kStatusSuccess) {
                EXPECT_EQ(field.data.i32, row.value);
            }
        }
    }
    Message ids = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(ids.get(), nullptr, 5, 0), kStatusSuccess);
    pelmoMsgField field;
    EXPECT_EQ(pelmoMsg_GetFieldEx(ids.get(), nullptr, &field, 3), kStatusNotFound);
}

TEST(Message, CountsInstancesInImageOrder) {
    Message msg = newMessage();
    for (const int32_t value : {1, 2, 3}) {
        EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "a", value, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_AddI32(msg.get(), nullptr, -value, 0), kStatusSuccess);
    }
    pelmoMsgField field;
    for (const uint32_t instance : {1u, 2u, 3u}) {
        ASSERT_EQ(pelmoMsg_GetFieldInstance(msg.get(), "a", &field, instance), kStatusSuccess);
        EXPECT_EQ(field.data.i32, static_cast<int32_t>(instance));
        ASSERT_EQ(pelmoMsg_GetFieldInstance(msg.get(), nullptr, &field, instance), kStatusSuccess);
        EXPECT_EQ(field.data.i32, -static_cast<int32_t>(instance));
    }
    EXPECT_EQ(pelmoMsg_GetFieldInstance(msg.get(), "a", &field, 4), kStatusNotFound);
    EXPECT_EQ(pelmoMsg_GetFieldInstance(msg.get(), "a", &field, 0), kStatusInvalidInstance);
    EXPECT_EQ(pelmoMsg_RemoveFieldInstance(msg.get(), "a", 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_RemoveFieldInstance(msg.get(), "a", 4), kStatusNotFound);
    EXPECT_EQ(pelmoMsg_RemoveFieldInstance(msg.get(), "a", 2), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_GetFieldInstance(msg.get(), "a", &field, 2), kStatusSuccess);
    EXPECT_EQ(field.data.i32, 3);
    EXPECT_EQ(countOf(msg.get()), 5u);
}

TEST(Message, RemovesWithoutAParseOnlyAtTheEnd) {
    Message msg = newMessage();
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_EQ(pelmoMsg_AddI32(msg.get(), name, name[0], static_cast<uint16_t>(name[0])),
                  kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "c", 0), kStatusSuccess);
    EXPECT_EQ(msg->indexValid, 1u);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "c2", 1, 'c'), kStatusSuccess);  // its id is free again
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), nullptr, 'a'), kStatusSuccess);
    EXPECT_EQ(msg->indexValid, 0u);
    EXPECT_EQ(i32Of(msg.get(), "b", 'b'), 'b');
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "a", 'a'), kStatusNotFound);
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "b", 9), kStatusIdConflict);
}

struct RefusedCase {
    const char* what;
    pelmoMsgField field;
    pelmoStatus adding;
    pelmoStatus updating;  // of a field that isn't there, where that differs
};

pelmoMsgField fieldOf(uint8_t type, uint32_t size, const void* data, uint32_t count = 1) {
    pelmoMsgField field;
    field.name = "refused";
    field.type = type;
    field.size = size;
    field.count = count;
    field.data.pointer = data;
    return field;
}

pelmoMsgField named(pelmoMsgField field, const char* name, uint16_t id) {
    field.name = name;
    field.id = id;
    return field;
}

TEST(Message, RefusesWhatCannotBeAddedAndStaysAsItWas) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "there", 1, 5), kStatusSuccess);
    const std::string tooLong = kLongestName + "n";
    const char* const texts[] = {"a", nullptr};
    pelmoMsg* const messages[] = {msg.get()};
    pelmoMsg* const noMessages[] = {nullptr};
    const pelmoMsgField number = fieldOf(FIELD_I32, 4, nullptr);
    pelmoMsgField late = fieldOf(FIELD_DATETIME, 12, nullptr);
    late.data.dateTime = {int64_t{1} << 39, 0};
    const RefusedCase cases[] = {
        {"a type of the wire", fieldOf(WIRE_INT, 4, nullptr), kStatusInvalidType, 0},
        {"type 0", fieldOf(FIELD_BAD, 4, "x"), kStatusInvalidType, 0},
        {"an unknown type", fieldOf(99, 4, "x"), kStatusInvalidType, 0},
        {"a long name", named(number, tooLong.c_str(), 0), kStatusInvalidName, 0},
        {"an id alone", named(number, nullptr, 7), kStatusNotPermitted, 0},
        {"count 0", fieldOf(FIELD_I32, 4, nullptr, 0), kStatusInvalidFieldCount, 0},
        {"an id in use", named(number, "other", 5), kStatusIdInUse, kStatusSuccess},
        {"no text", fieldOf(FIELD_STRING, 0, nullptr), kStatusInvalidArgument, 0},
        {"no bytes", fieldOf(FIELD_OPAQUE, 3, nullptr), kStatusInvalidArgument, 0},
        {"no elements", fieldOf(FIELD_I32ARRAY, 4, nullptr), kStatusInvalidArgument, 0},
        {"a null text among texts", fieldOf(FIELD_STRINGARRAY, 0, texts, 2), kStatusInvalidArgument,
         0},
        {"no message", fieldOf(FIELD_MSGARRAY, 0, noMessages), kStatusInvalidArgument, 0},
        {"size 0 of a number", fieldOf(FIELD_I32, 0, nullptr), kStatusInvalidSize, 0},
        {"size 0 of an array", fieldOf(FIELD_I8ARRAY, 0, "x"), kStatusInvalidSize, 0},
        {"itself", fieldOf(FIELD_MSG, 0, msg.get()), kStatusNotPermitted, 0},
        {"itself in a list", fieldOf(FIELD_MSGARRAY, 0, messages), kStatusNotPermitted, 0},
        {"no prefix tells it", fieldOf(FIELD_OPAQUE, UINT32_MAX, "x"), kStatusInvalidSize, 0},
        {"compressed, no prefix tells it", fieldOf(FIELD_XML, UINT32_MAX - 30, "x"),
         kStatusInvalidSize, 0},
        {"no 32 bits tell it", fieldOf(FIELD_I64ARRAY, 8, "x", 1u << 30), kStatusInvalidSize, 0},
        {"no image takes it", fieldOf(FIELD_OPAQUE, UINT32_MAX - 4, "x"), kStatusNoMemory, 0},
        {"2 GiB", fieldOf(FIELD_OPAQUE, 1u << 31, "x"), kStatusNoMemory, 0},
        {"a date beyond 40 bits", late, kStatusInvalidArgument, 0},
    };
    const Bytes image = imageOf(msg.get());
    for (const RefusedCase& row : cases) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(pelmoMsg_AddField(msg.get(), &row.field), row.adding);
        if (row.field.id != 5) {
            EXPECT_EQ(pelmoMsg_UpdateField(msg.get(), &row.field), row.adding);
        }
        EXPECT_EQ(imageOf(msg.get()), image);
        EXPECT_EQ(countOf(msg.get()), 1u);
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
    pelmoMsgField late = named(fieldOf(FIELD_DATETIME, 12, nullptr), "time", 0);
    late.data.dateTime = {0, 1000000000};
    const char* const broken[] = {"something longer than it was", nullptr};
    const struct {
        const char* what;
        pelmoMsgField field;
        pelmoStatus status;
    } cases[] = {
        {"another type", named(fieldOf(FIELD_I32, 4, nullptr), "text", 0), kStatusInvalidType},
        {"an id that isn't its own", named(late, "time", 8), kStatusIdConflict},
        {"no text", named(fieldOf(FIELD_STRING, 0, nullptr), "text", 0), kStatusInvalidArgument},
        {"nothing at all", named(fieldOf(FIELD_NONE, 0, nullptr), "none", 0), kStatusInvalidSize},
        {"a null text", named(fieldOf(FIELD_STRINGARRAY, 0, broken, 2), "texts", 0),
         kStatusInvalidArgument},
        {"a date with too many nanoseconds", late, kStatusInvalidArgument},
        {"itself", named(fieldOf(FIELD_MSG, 0, msg.get()), "msg", 0), kStatusNotPermitted},
        {"too much", named(fieldOf(FIELD_STRING, UINT32_MAX, "x"), "text", 0), kStatusInvalidSize},
        {"count 0", named(fieldOf(FIELD_STRING, 0, "x", 0), "text", 0), kStatusInvalidFieldCount},
    };
    const Bytes image = imageOf(msg.get());
    for (const auto& row : cases) {
        EXPECT_EQ(pelmoMsg_UpdateField(msg.get(), &row.field), row.status) << row.what;
        EXPECT_EQ(imageOf(msg.get()), image) << row.what;
    }
}

TEST(Message, AnswersCorruptImagesAgainAndAgain) {
    const Bytes record{2, 'a', 0, 11, 1, 5};
    const struct {
        const char* what;
        Bytes records;
    } cases[] = {
        {"a byte too few", {2, 'a', 0, 11, 1}},
        {"a byte too many", {2, 'a', 0, 11, 1, 5, 0}},
        {"a name without its NUL", {2, 'a', 'b', 11, 1, 5}},
        {"a name area beyond the end", {200, 'a', 0, 11, 1, 5}},
        {"size class 120", {2, 'a', 0, 7, 120, 0}},
        {"size class 123", {2, 'a', 0, 7, 123, 0}},
        {"size class 255", {2, 'a', 0, 7, 255, 0}},
        {"half a 16-bit length", {2, 'a', 0, 7, 121, 0}},
        {"half a 32-bit length", {2, 'a', 0, 7, 122, 0, 0, 0}},
        {"a 16-bit length beyond the end", {2, 'a', 0, 7, 121, 0, 9, 1}},
        {"a 32-bit length beyond the end", {2, 'a', 0, 7, 122, 0xff, 0xff, 0xff, 0xff, 1}},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        const Bytes image = imageOf({record, row.records});
        const Message msg = messageFrom(image);
        pelmoMsgField field;
        uint32_t number = 0;
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(pelmoMsg_GetNumFields(msg.get(), &number), kStatusCorruptMessage);
            EXPECT_EQ(pelmoMsg_GetByteSize(msg.get(), &number), kStatusCorruptMessage);
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
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), nullptr, &field, 5), kStatusSuccess);
    EXPECT_EQ(field.data.i8, 2);
    EXPECT_EQ(i32Of(msg.get(), "a"), 1);
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), "c", &field, 0), kStatusSuccess);
    EXPECT_EQ(field.type, FIELD_I16);
    EXPECT_EQ(field.data.i16, -2);
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), "d", &field, 0), kStatusSuccess);
    EXPECT_TRUE(fieldHolds(field, *blockValue(FIELD_OPAQUE, {9})));
    EXPECT_EQ(pelmoMsg_GetFieldEx(msg.get(), "e", &field, 0), kStatusInvalidType);
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), nullptr, &field, 1), kStatusSuccess);
    EXPECT_STREQ(field.name, "");
    ASSERT_EQ(pelmoMsg_GetFieldEx(msg.get(), nullptr, &field, 0), kStatusSuccess);
    EXPECT_EQ(field.data.i8, 4);
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
        uint32_t offset;
        uint32_t length;
        uint32_t magic;
        pelmoStatus status;
    } heads[] = {
        {0, 8, kMessageMagic, kStatusSuccess},
        {0, 40, kMessageMagic, kStatusSuccess},
        {0, 41, kMessageMagic, kStatusCorruptMessage},
        {8, 33, kMessageMagic, kStatusCorruptMessage},
        {8, UINT32_MAX, kMessageMagic, kStatusCorruptMessage},
        {8, 7, kMessageMagic, kStatusCorruptMessage},
        {8, 8, kMessageDead, kStatusInvalidMessage},
        {32, 8, kMessageMagic, kStatusSuccess},
    };
    for (const auto& head : heads) {
        storeBe32At(buffer->data + head.offset, head.length);
        storeBe32At(buffer->data + head.offset + 4, head.magic);
        out = nullptr;
        EXPECT_EQ(msgCreateOverBuffer(&out, buffer, head.offset), head.status);
        EXPECT_EQ(out != nullptr, head.status == kStatusSuccess);
        if (out != nullptr) {
            EXPECT_EQ(pelmoMsg_Destroy(out), kStatusSuccess);
        }
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
    EXPECT_EQ(pelmoMsg_Destroy(nullptr), kStatusInvalidMessage);
    EXPECT_EQ(pelmoMsg_AddI32(msg, "a", 1, 0), kStatusInvalidMessage);
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

TEST(Message, SharesItsBufferUntilOneWrites) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "a", 1, 0), kStatusSuccess);
    msgSetLimitAdvisory(msg.get());
    pelmoMsg* shared = nullptr;
    ASSERT_EQ(msgShareCopy(&shared, msg.get()), kStatusSuccess);
    const Message copy(shared);
    EXPECT_TRUE(msgIsLimitAdvisory(shared));
    EXPECT_EQ(msg->buffer, copy->buffer);
    const Bytes before = imageOf(msg.get());
    EXPECT_EQ(pelmoMsg_AddI32(shared, "b", 2, 0), kStatusSuccess);
    EXPECT_EQ(imageOf(msg.get()), before);
    EXPECT_EQ(pelmoMsg_UpdateI32(msg.get(), "a", 9, 0), kStatusSuccess);
    EXPECT_EQ(i32Of(shared, "a"), 1);
    EXPECT_EQ(countOf(msg.get()), 1u);

    ASSERT_EQ(msgShareCopy(&shared, msg.get()), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 100), kStatusSuccess);  // not under the other one
    EXPECT_NE(msg->buffer, shared->buffer);
    EXPECT_EQ(i32Of(shared, "a"), 9);
    EXPECT_EQ(pelmoMsg_Destroy(shared), kStatusSuccess);
}

TEST(Message, ExpandsAndShrinksItsRoom) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 36), kStatusSuccess);
    EXPECT_EQ(msg->capacity, 100u);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), -93), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), INT32_MIN), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), -92), kStatusSuccess);
    EXPECT_EQ(msg->capacity, 8u);
    EXPECT_EQ(pelmoMsg_AddString(msg.get(), "a", "text", 0), kStatusSuccess);
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_GetString(msg.get(), "a", &text, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Expand(msg.get(), 1), kStatusSuccess);
    EXPECT_STREQ(text, "text");
}

TEST(Message, HandsOutItsBytes) {
    Message msg = newMessage();
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "a", 1, 0), kStatusSuccess);
    uint32_t size = 0;
    ASSERT_EQ(pelmoMsg_GetByteSize(msg.get(), &size), kStatusSuccess);
    Bytes bytes(size);
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), bytes.data(), size - 1),
              kStatusInsufficientBuffer);
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), bytes.data(), size), kStatusSuccess);
    EXPECT_EQ(bytes, imageOf(msg.get()));
    EXPECT_EQ(pelmoMsg_GetAsBytesCopy(msg.get(), nullptr, size), kStatusInvalidArgument);
    EXPECT_EQ(msgFlushBuffer(nullptr), nullptr);
    EXPECT_EQ(msgFlushBuffer(msg.get()), msg->buffer);
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
    Message msg = newMessage();
    const int32_t numbers[] = {-1, 2};
    const char* const texts[] = {"a"};
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "i", -1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddString(msg.get(), "s", "12", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddI32Array(msg.get(), "n", numbers, 2, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddStringArray(msg.get(), "t", texts, 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "sub", "A.B", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "x", "A..B", 0), kStatusInvalidSubject);
    const pelmoMsgField open = named(fieldOf(FIELD_STRING, 3, "abc"), "open", 0);
    EXPECT_EQ(pelmoMsg_AddField(msg.get(), &open), kStatusSuccess);

    uint64_t wide = 0;
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "i", &wide, 0), kStatusSuccess);
    EXPECT_EQ(wide, UINT64_MAX);
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "s", &wide, 0), kStatusSuccess);
    EXPECT_EQ(wide, 12u);
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_GetString(msg.get(), "i", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "-1");
    EXPECT_EQ(pelmoMsg_GetString(msg.get(), "open", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(pelmoMsg_GetSubjectText(msg.get(), "sub", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "A.B");
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
    EXPECT_EQ(pelmoMsg_GetMsg(msg.get(), "s", &nested, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetOpaque(msg.get(), "s", &bytes, &count, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetDateTime(msg.get(), "i", &time, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetI32Array(msg.get(), "t", nullptr, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetStringArray(msg.get(), "s", &list, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "t", &wide, 0), kStatusConversionFailed);
    const ReferenceMark behind = msgMark(msg.get());
    EXPECT_EQ(std::memcmp(&before, &behind, sizeof before), 0);  // nothing was left behind
}

TEST(Message, ForgetsWhereTheSendSubjectWasWhenItIsUpdated) {
    const Message msg = newMessage();
    msg->sendSubjectOffset = 8;
    EXPECT_EQ(pelmoMsg_UpdateSubjectText(msg.get(), "subs", "A", 0), kStatusSuccess);
    EXPECT_EQ(msg->sendSubjectOffset, 8u);
    EXPECT_EQ(pelmoMsg_UpdateSubjectText(msg.get(), "sub", "A", 0), kStatusSuccess);
    EXPECT_EQ(msg->sendSubjectOffset, 0u);
}

}  // namespace
