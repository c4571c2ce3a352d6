#include <algorithm>
#include <cstring>
#include <utility>

#include "tests/support/envelope_bytes.h"
#include "tests/support/fail_alloc.h"

namespace {

const std::string kLongestName(kMaxNameChars, 'n');
const Bytes kEmpty = {0, 0, 0, 8, 0x99, 0x55, 0xee, 0xaa};

pelmoMsgField named(pelmoMsgField field, const char* name, uint16_t id) {
    field.name = name;
    field.id = id;
    return field;
}

uint32_t countOf(pelmoMsg* msg) {
    uint32_t count = UINT32_MAX;
    EXPECT_EQ(pelmoMsg_GetNumFields(msg, &count), kStatusSuccess);
    return count;
}

pelmoMsgField dateOf(pelmoMsgDateTime time, uint32_t size = 12) {
    return {.size = size, .data = {.dateTime = time}, .type = FIELD_DATETIME};
}

// The message stays as it was.
TEST(Message, RefusesWhatCannotBeAddedOrUpdated) {
    const Message msg = newMessage(), inner = newMessage();
    const char* const texts[] = {"first", "second"};
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), "there", 1, 5), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddStringArray(msg.get(), "texts", texts, 2, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddString(msg.get(), "text", "old", 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddMsg(msg.get(), "msg", inner.get(), 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddNone(msg.get(), "none", 0), kStatusSuccess);
    const pelmoMsgDateTime now = {1, 2}, late = {0, 1000000000};
    EXPECT_EQ(pelmoMsg_AddDateTime(msg.get(), "time", &now, 9), kStatusSuccess);
    const std::string tooLong = kLongestName + "n";
    const char* const broken[] = {"something longer than it was", nullptr};
    pelmoMsg* const messages[] = {msg.get()};
    pelmoMsg* const inners[] = {inner.get()};
    constexpr int64_t kTwoTo39 = int64_t{1} << 39;
    pelmoMsg* const noMessages[] = {nullptr};
    const pelmoMsgField number = fieldOf(FIELD_I32, 4, nullptr);
    const auto both = {pelmoMsg_AddField, pelmoMsg_UpdateField};
    const auto add = {pelmoMsg_AddField}, update = {pelmoMsg_UpdateField};
    const struct {
        const char* what;
        std::initializer_list<decltype(&pelmoMsg_AddField)> calls;
        pelmoMsgField field;
        pelmoStatus status;
    } cases[] = {
        {"a type of the wire", both, fieldOf(WIRE_INT, 4, nullptr), kStatusInvalidType},
        {"an unknown type", both, fieldOf(99, 4, "x"), kStatusInvalidType},
        {"a long name", both, named(number, tooLong.c_str(), 0), kStatusInvalidName},
        {"an id alone", both, named(number, nullptr, 7), kStatusNotPermitted},
        {"count 0", both, fieldOf(FIELD_I32, 4, nullptr, 0), kStatusInvalidFieldCount},
        {"an id in use", add, named(number, "other", 5), kStatusIdInUse},
        {"no text", both, fieldOf(FIELD_STRING, 0, nullptr), kStatusInvalidArgument},
        {"no message", both, fieldOf(FIELD_MSGARRAY, 0, noMessages), kStatusInvalidArgument},
        {"size 0 of a number", both, fieldOf(FIELD_I32, 0, nullptr), kStatusInvalidSize},
        {"itself", both, fieldOf(FIELD_MSG, 0, msg.get()), kStatusNotPermitted},
        {"itself in a list", both, fieldOf(FIELD_MSGARRAY, 0, messages), kStatusNotPermitted},
        {"too large for a prefix", both, fieldOf(FIELD_OPAQUE, UINT32_MAX, "x"),
         kStatusInvalidSize},
        {"too large once compressed", both, fieldOf(FIELD_XML, UINT32_MAX - 30, "x"),
         kStatusInvalidSize},
        {"too many elements", both, fieldOf(FIELD_I64ARRAY, 8, "x", 1u << 30), kStatusInvalidSize},
        {"too large for an image", both, fieldOf(FIELD_OPAQUE, UINT32_MAX - 4, "x"),
         kStatusNoMemory},
        {"another type", update, named(number, "text", 0), kStatusInvalidType},
        {"an id that isn't its own", update, named(dateOf(late), "time", 8), kStatusIdConflict},
        {"nothing at all", update, named(fieldOf(FIELD_NONE, 0, nullptr), "none", 0),
         kStatusInvalidSize},
        {"a null text", both, named(fieldOf(FIELD_STRINGARRAY, 0, broken, 2), "texts", 0),
         kStatusInvalidArgument},
        {"a date with too many nanoseconds", both, named(dateOf(late), "time", 0),
         kStatusInvalidArgument},
        {"a date too late", both, dateOf({kTwoTo39, 0}), kStatusInvalidArgument},
        {"a date too early", both, dateOf({-kTwoTo39 - 1, 0}), kStatusInvalidArgument},
        {"a date of 11 bytes", both, dateOf(now, 11), kStatusInvalidArgument},
        {"a subject longer by its head", both, fieldOf(FIELD_SUBJECT, 3, "\0\4"),
         kStatusInvalidArgument},
        {"a subject of a byte", both, fieldOf(FIELD_SUBJECT, 1, "\0\4"), kStatusInvalidArgument},
        {"a subject of no form", both, fieldOf(FIELD_SUBJECT, 4, "\0\4\1\1"),
         kStatusInvalidArgument},
        {"texts of less", both, fieldOf(FIELD_STRINGARRAY, 16, texts, 2), kStatusInvalidArgument},
        {"texts of more", both, fieldOf(FIELD_STRINGARRAY, 18, texts, 2), kStatusInvalidArgument},
        {"a message of more", both, fieldOf(FIELD_MSG, 9, inner.get()), kStatusInvalidArgument},
        {"messages of more", both, fieldOf(FIELD_MSGARRAY, 13, inners), kStatusInvalidArgument},
        {"itself instead of another", update, named(fieldOf(FIELD_MSG, 0, msg.get()), "msg", 0),
         kStatusNotPermitted},
    };
    Bytes image = imageOf(msg.get());
    for (const auto& [what, calls, field, status] : cases) {
        for (const auto call : calls) {
            EXPECT_EQ(call(msg.get(), &field), status) << what;
            EXPECT_EQ(imageOf(msg.get()), image) << what;
        }
    }
    for (uint8_t type = FIELD_I8; type < FIELD_XML; ++type) {
        if (fieldEncoders[type] == nullptr || type == FIELD_NONE) continue;
        for (const uint32_t size : {3u, 9u}) {
            const pelmoMsgField wrong = fieldOf(type, size, texts);
            EXPECT_EQ(pelmoMsg_AddField(msg.get(), &wrong), kStatusInvalidArgument) << +type;
        }
    }
    const auto room = static_cast<int32_t>(msg->capacity - msg->length);
    for (const int32_t change : {INT32_MIN, -room - 1, -room}) {
        EXPECT_EQ(pelmoMsg_Expand(msg.get(), change),
                  change == -room ? kStatusSuccess : kStatusInvalidArgument);
    }
    EXPECT_EQ(imageOf(msg.get()), image);
    EXPECT_EQ(
        pelmoMsg_GetAsBytesCopy(msg.get(), image.data(), static_cast<uint32_t>(image.size()) - 1),
        kStatusInsufficientBuffer);
    EXPECT_EQ(pelmoMsg_AddI32(msg.get(), kLongestName.c_str(), 1, 1), kStatusSuccess);
}

TEST(Message, RefusesACorruptImageAtEachCall) {
    const Bytes record{2, 'a', 0, 11, 1, 5};
    const Bytes rests[] = {
        {0},
        {2, 'a', 0, 11},
        {2, 'a', 0, 11, 1},
        {2, 'a', 0, 11, 1, 5, 0},                        // one byte more
        {2, 'a', 0, 7, 122, 0xff, 0xff, 0xff, 0xff, 1},  // the largest size
        {0, 7, 121, 0},                                  // half a size
        {0, 7, 122, 0, 0, 0},                            //
        {2, 'a', 'b', 22, 0},                            // a name without its NUL
        {4, 0, 'a', 'b', 'c', 22, 0},                    // a NUL too early
        Bytes{0, 7, 120} + Bytes(129),                   // size classes that aren't used
        Bytes{0, 7, 123} + Bytes(129),                   //
    };
    for (const Bytes& rest : rests) {
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
        {2, 'e', 0, 99, 1, 0},           // an unknown type
        {0, 99, 1, 8},
        {3, 0, 0, 1, 11, 1, 3},  // an id with an empty name
        {0, 11, 1, 4},           // no name
        {3, 0, 'b', 0, 22, 0},   // a NUL where an id begins
        Bytes{255} + Bytes(254, 'n') + Bytes{0, 22, 0},
        // Values are read as far as they go.
        {2, 'f', 0, FIELD_I32ARRAY, 6, 0, 0, 0, 7, 9, 9},
        {2, 'g', 0, FIELD_I32ARRAY, 3, 1, 2, 3},
        {2, 'h', 0, FIELD_STRINGARRAY, 6, 0, 0, 0, 0, 9, 9},
        {2, 'i', 0, FIELD_MSGARRAY, 5, 0, 0, 0, 0, 9},
        {2, 'j', 0, FIELD_OPAQUE, 0},
        {2, 'k', 0, FIELD_STRING, 121, 0, 2},
        {2, 'l', 0, FIELD_BOOL, 0},
        {2, 'm', 0, FIELD_DATETIME, 8, 0, 0, 0, 1, 0, 16, 0, 0},  // more than a second
        // Codes of the application: the width alone decides.
        {2, 'n', 0, 14, 2, 0xff, 0xfe},
        {2, 'o', 0, 21, 2, 0xff, 0xfe},
        {2, 'p', 0, 27, 2, 0xff, 0xfe},
    }));
    EXPECT_EQ(textOf(msg.get()),
              "{a[5]=1 b[5]=2 c=-2 d=[1 opaque bytes] e=[NO DECODER AVAILABLE] "
              "NULL=[NO DECODER AVAILABLE] [1]=3 NULL=4 [25088]=[NONE] " +
                  std::string(254, 'n') +
                  "=[NONE] f=[7] "
                  "g=[] h=[] i=[] j=[0 opaque bytes] k=\"\" l=false "
                  "m=1970-01-01 00:00:01.1048576000Z n=-2 o=65534 p=65534}");
    pelmoMsgField field, bytes;
    EXPECT_EQ(pelmoMsg_GetFieldEx(msg.get(), nullptr, &field, 5), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_GetFieldEx(msg.get(), "e", &field, 0), kStatusInvalidType);
    msgCutBack(msg.get(), {});  // nothing else holds the image
    ASSERT_EQ(pelmoMsg_GetFieldBytes(msg.get(), &bytes, 5), kStatusSuccess);
    // An update writes what a writer of today would, and leaves the bytes that were read.
    EXPECT_EQ(pelmoMsg_UpdateI16(msg.get(), "c", 7, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "b", 0), kStatusSuccess);
    EXPECT_EQ(std::memcmp(bytes.data.pointer, "\x8", bytes.size), 0);
}

// Either would take hours if a step went over all that is there. A message that was reset keeps its
// room: it is built again without the heap.
TEST(Message, TakesAndWalksManyFieldsInLinearTime) {
    const Message msg = newMessage();
    for (const bool again : {false, true}) {
        const FailAlloc count{.after = kNeverFails};
        ASSERT_EQ(pelmoMsg_Reset(msg.get()), kStatusSuccess);
        for (uint32_t i = 0; i < 300000; ++i) {
            const auto id = static_cast<uint16_t>(i < 65536 ? i : 0);
            ASSERT_EQ(pelmoMsg_AddI32(msg.get(), "n", 1, id), kStatusSuccess);
        }
        EXPECT_EQ(allocationsCounted() == 0, again);
    }
    EXPECT_EQ(countOf(msg.get()), 300000u);
    pelmoMsgField field;
    for (uint32_t i = 0; i <= 300000; i += 10) {
        ASSERT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, i),
                  i < 300000 ? kStatusSuccess : kStatusNotFound);
    }
}

TEST(Message, ReadsAsTheTypeAskedForAndKeepsNothingOfWhatItRefuses) {
    const Message msg = messageFrom(imageOf({
        recordOf("t", 0, *stringArrayValue({"a"})),
        recordOf("sub", 0, *subjectValue("A.B")),
        recordOf("open", 0, *blockValue(FIELD_STRING, {'1', '2'})),
    }));
    EXPECT_EQ(pelmoMsg_AddSubjectText(msg.get(), "x", "A..B", 0), kStatusInvalidSubject);
    const char* text = nullptr;
    EXPECT_EQ(pelmoMsg_GetString(msg.get(), "open", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "12");
    EXPECT_EQ(pelmoMsg_GetSubjectText(msg.get(), "sub", &text, 0), kStatusSuccess);
    EXPECT_STREQ(text, "A.B");
    uint64_t wide = 0;
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "open", &wide, 0), kStatusSuccess);
    EXPECT_EQ(wide, 12u);

    const ReferenceMark mark = msgMark(msg.get());
    const void* bytes = nullptr;
    pelmoMsg* nested = nullptr;
    const char* const* list = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(pelmoMsg_GetMsg(msg.get(), "open", &nested, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetOpaque(msg.get(), "open", &bytes, &count, 0), kStatusConversionFailed);
    EXPECT_EQ(pelmoMsg_GetI32Array(msg.get(), "t", nullptr, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetStringArray(msg.get(), "open", &list, &count, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetU64(msg.get(), "t", &wide, 0), kStatusConversionFailed);
    const ReferenceMark now = msgMark(msg.get());
    EXPECT_EQ(std::memcmp(&now, &mark, sizeof now), 0);
}

// A message keeps its fields, and the call succeeds once there is memory. Calls that change fields,
// read or show them are the model's.
TEST(Message, AnswersEachFailedAllocationAndStaysAsItWas) {
    const SharedValue value = stringValue(std::string(50000, 'l'));
    const Bytes foreign = recordOf("x", 7, *value);
    const auto readEach = [](pelmoMsg* msg) {
        pelmoMsgField field;
        int32_t number = 0;
        const int64_t* wide = nullptr;
        uint32_t count = 0;
        const pelmoStatus statuses[] = {pelmoMsg_GetI32(msg, "open", &number, 0),
                                        pelmoMsg_GetI64Array(msg, "n", &wide, &count, 0),
                                        pelmoMsg_GetFieldByIndex(msg, &field, 2)};
        return *std::ranges::max_element(statuses);
    };
    const std::pair<Bytes, pelmoStatus (*)(pelmoMsg*)> steps[] = {
        {imageOf({
             recordOf("n", 0, *numbersValue<int32_t>(FIELD_I32ARRAY, {1, 2})),
             recordOf("open", 0, *blockValue(FIELD_STRING, {'1', '2'})),
             // A document of three bytes, compressed.
             {2, 'y', 0, FIELD_XML, 12, 3, 0x78, 0x9c, 0x63, 0x64, 0x62, 6, 0, 0, 0xd, 0, 7},
         }),
         readEach},
        {outer(foreign + kReturnR + kData + kApp), msgStripEnvelope},
        {outer(kData + kApp + foreign), msgOpenEnvelope},       // data moves
        {outer(recordOf("data", 0, *value)), msgOpenEnvelope},  // and is wrapped
    };
    for (const auto& [image, run] : steps) {
        const size_t failures = eachAllocationFails([&] {
            const Message msg = messageFrom(image);
            if (msg == nullptr) return;
            const pelmoStatus status = run(msg.get());
            if (status == kStatusSuccess) return;
            // "data" that can't be wrapped is no message.
            EXPECT_TRUE(status == kStatusNoMemory || status == kStatusInvalidMessage) << status;
            EXPECT_GT(allocationsFailed(), 0u);
            allocationsHeal();
            EXPECT_EQ(imageOf(msg.get()), image);
            EXPECT_EQ(run(msg.get()), kStatusSuccess);
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

TEST(Message, LetsGoOfANestThatIsDeeperThanTheStack) {
    Message outermost = messageFrom(nestOf(100000));
    Buffer* buffer = outermost->buffer;
    bufferRetain(buffer);
    pelmoMsg* inner = outermost.get();
    for (int i = 0; i < 100000; ++i) {
        ASSERT_EQ(pelmoMsg_GetMsg(inner, nullptr, &inner, 0), kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_Destroy(inner), kStatusNotPermitted);
    EXPECT_EQ(pelmoMsg_Detach(inner), kStatusSuccess);
    const Message detached(inner);
    outermost.reset();
    EXPECT_EQ(buffer->refCount.load(), 2u);  // the innermost alone has another holder
    EXPECT_EQ(pelmoMsg_AddI32(inner, "z", 3, 0), kStatusSuccess);
    EXPECT_EQ(textOf(inner), "{z=3}");
    bufferRelease(buffer);
}

// An image could be all messages of eight bytes, objects are some hundreds each.
TEST(Message, BoundsTheObjectsThatReadsMake) {
    const std::vector<Bytes> tooMany(kMostSubMessages + 1, kEmpty);
    const Message msg = messageFrom(imageOf({recordOf(nullptr, 0, *messageArrayValue(tooMany)),
                                             recordOf("m", 0, *messageValue(kEmpty))}));
    pelmoMsgField field;
    FailAlloc count{.after = kNeverFails};
    EXPECT_EQ(pelmoMsg_GetFieldByIndex(msg.get(), &field, 0), kStatusNoMemory);
    allocationsHeal();
    EXPECT_EQ(allocationsCounted(), 3u);  // the list, and what would hold it
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
