#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lib/msg/envelope_internal.h"
#include "tests/support/envelope_bytes.h"

namespace {

TEST(Envelope, IsLaidDownToTheByte) {
    using Call = std::function<pelmoStatus(pelmoMsg*)>;
    const Call send = [](pelmoMsg* msg) { return pelmoMsg_SetSendSubject(msg, "A.B"); };
    const Call reply = [](pelmoMsg* msg) { return pelmoMsg_SetReplySubject(msg, "R"); };
    const Call port = [](pelmoMsg* msg) { return pelmoMsg_SetSourcePort(msg, 7500); };
    const Call noSend = [](pelmoMsg* msg) { return pelmoMsg_SetSendSubject(msg, nullptr); };
    const Call noReply = [](pelmoMsg* msg) { return pelmoMsg_SetReplySubject(msg, nullptr); };
    const Call kind = [](pelmoMsg* msg) { return msgSetMtype(msg, "Q"); };
    Bytes kindQ = kMtypeD;
    kindQ[9] = 'Q';
    const struct {
        const char* what;
        std::vector<Call> calls;
        Bytes envelope;
    } cases[] = {
        {"send", {send}, kSubAB + kMtypeD},
        {"nothing left", {reply, noReply}, {}},
        {"send, reply", {send, reply}, kSubAB + kMtypeD + kReturnR},
        {"reply, send", {reply, send}, kReturnR + kSubAB + kMtypeD},
        {"port, reply, send", {port, reply, send}, kCid + kReturnR + kSubAB + kMtypeD},
        {"kind, send", {kind, send}, kindQ + kSubAB},
        {"send, reply, no send", {send, reply, noSend}, kMtypeD + kReturnR},
        {"no send, no reply, port", {noSend, noReply, port}, kCid},
    };
    for (const auto& [what, calls, envelope] : cases) {
        SCOPED_TRACE(what);
        const Message msg = appMessage();
        for (const Call& call : calls) {
            EXPECT_EQ(call(msg.get()), kStatusSuccess);
        }
        EXPECT_EQ(wireOf(msg.get()), outer(envelope + kData + kApp));
        EXPECT_EQ(msg->dataOffset, 16 + envelope.size());
        EXPECT_EQ(imageOf(msg.get()), kApp);
        EXPECT_EQ(textOf(msg.get()), "{n=7}");
        EXPECT_FALSE(msgHasForeign(msg.get()));
    }
    const Message plain = appMessage();
    EXPECT_EQ(noSend(plain.get()), kStatusSuccess);
    EXPECT_EQ(noReply(plain.get()), kStatusSuccess);
    EXPECT_EQ(wireOf(plain.get()), kApp);
}

// What opening finds; offsets as distances would say no more than what the getters give.
struct Opened {
    pelmoStatus status = kStatusSuccess;
    uint32_t flags = 0;
    std::string shown = "{n=7}";
    std::string send = kNotFound, reply = kNotFound;
    std::optional<uint16_t> port = std::nullopt;
    std::optional<Bytes> after = std::nullopt;  // the image, where it has changed

    bool operator==(const Opened&) const = default;
};

void PrintTo(const Opened& opened, std::ostream* stream) {
    *stream << "status " << opened.status << ", flags " << opened.flags << ", " << opened.shown
            << ", " << opened.send << ", " << opened.reply << ", " << opened.port.value_or(0)
            << (opened.after ? ", changed" : "");
}

Opened open(const Bytes& image) {
    const Message msg = messageFrom(image);
    Opened opened;
    opened.status = msgOpenEnvelope(msg.get());
    EXPECT_EQ(msg->dataOffset == 0, opened.status != kStatusSuccess || image.size() == 8);
    // Opening keeps nothing of what it had to read.
    EXPECT_EQ(msg->bufferRefs, 0u);
    EXPECT_EQ(msg->ownedBlocks, nullptr);
    EXPECT_EQ(msg->heldBuffers, nullptr);
    opened.flags = msg->envelopeFlags;
    opened.shown = textOf(msg.get());
    opened.send = sendSubjectOf(msg.get());
    opened.reply = replySubjectOf(msg.get());
    uint16_t port = 0;
    if (pelmoMsg_GetSource(msg.get(), &port) == kStatusSuccess) opened.port = port;
    if (wireOf(msg.get()) != image) opened.after = wireOf(msg.get());
    return opened;
}

TEST(Envelope, OpensWhateverOrderItsFieldsHave) {
    const Bytes data = kData + kApp;
    const Bytes text = field("x", *stringValue("y"));
    const Bytes number = field("ro", *scalarValue(FIELD_I32, &FieldData::i32, 5));
    const Bytes numbered = Bytes{7, 'd', 'a', 't', 'a', 0, 0, 9, 1, 122} + kApp;
    const Bytes wrapped = kData + outer(field("_data_", *stringValue("v")));
    const Bytes wrappedId = kData + outer(field("_data_", *stringValue("v"), 5));
    const struct {
        const char* what;
        Bytes fields;
        Opened expected;
    } cases[] = {
        {"data alone", data, {}},
        {"all",
         kSubAB + kReturnR + kMtypeD + kCid + data,
         {.send = "A.B", .reply = "R", .port = 7500}},
        {"data with an id", kSubAB + numbered, {.send = "A.B"}},
        {"e", field("e", *noneValue()) + data, {}},
        {"ro", number + data, {.flags = 129}},
        {"cmnam", field("cmnam", *noneValue()) + data, {.flags = 130}},
        {"pmtx", field("pmtx", *noneValue()) + data, {.flags = 132}},
        {"another", text + data, {.flags = 128}},
        {"names that begin alike",
         field("subs", *noneValue()) + field("c", *noneValue()) + data,
         {.flags = 128}},
        {"a subject in another type's clothes",
         Bytes{4, 's', 'u', 'b', 0, 7, 121, 0, 3, 0} + data,
         {}},
        {"data first", data + kSubAB, {.send = "A.B", .after = outer(kSubAB + data)}},
        {"two of data", data + kData + outer({}), {.flags = 128, .shown = "{}"}},
        {"no data",
         kSubAB,
         {.shown = "{}", .send = "A.B", .after = outer(kSubAB + kData + outer({}))}},
        {"a text as data",
         kSubAB + field("data", *stringValue("v")),
         {.shown = "{_data_=\"v\"}", .send = "A.B", .after = outer(kSubAB + wrapped)}},
        {"a text as data, with an id, first",
         field("data", *stringValue("v"), 5) + kSubAB,
         {.shown = "{_data_[5]=\"v\"}", .send = "A.B", .after = outer(kSubAB + wrappedId)}},
        {"no fields", {}, {.shown = "{}"}},
    };
    for (const auto& [what, fields, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(open(outer(fields)), expected);
    }
}

TEST(Envelope, TakesSubjectsUpToTheirLimits) {
    const std::string element(95, 'e');
    const std::string packs200 = element + "." + element + "." + "a";  // 3 + 97 + 97 + 3
    const std::string inbox = "_INBOX." + std::string(127, 'i') + "." + std::string(113, 'i');
    const struct {
        std::string text;
        pelmoStatus send, reply;
    } cases[] = {
        {packs200, kStatusSuccess, kStatusSuccess},
        {inbox, kStatusSuccess, kStatusInvalidSubject},
        {inbox + "i", kStatusInvalidSubject, kStatusInvalidSubject},
        {"A..B", kStatusInvalidSubject, kStatusSuccess},
        {std::string(199, 'r'), kStatusInvalidSubject, kStatusSuccess},
        {std::string(200, 'r'), kStatusInvalidSubject, kStatusInvalidSubject},
    };
    for (const auto& [text, send, reply] : cases) {
        SCOPED_TRACE(text);
        const Message msg = appMessage();
        EXPECT_EQ(pelmoMsg_SetSendSubject(msg.get(), text.c_str()), send);
        EXPECT_EQ(sendSubjectOf(msg.get()), send == kStatusSuccess ? text : kNotFound);
        EXPECT_EQ(msg->dataOffset == 0, send != kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetReplySubject(msg.get(), text.c_str()), reply);
        EXPECT_EQ(replySubjectOf(msg.get()), reply == kStatusSuccess ? text : kNotFound);
        EXPECT_EQ(textOf(msg.get()), "{n=7}");
    }
}

TEST(Envelope, LeavesBytesOfOthersAlone) {
    const Bytes image = outer(kSubAB + kMtypeD + kData + kApp);
    const Bytes moved = outer(kData + kApp + kSubAB);
    const Bytes wrapped = outer(kSubAB + field("data", *stringValue("v")));
    const Bytes numbered = outer(kReturnR + field("data", *messageValue(kApp), 9));
    for (const Bytes& bytes : {image, moved, wrapped, numbered}) {
        const Message first = messageFrom(bytes);
        Buffer* buffer = first->buffer;
        pelmoMsg* second = nullptr;
        ASSERT_EQ(msgCreateOverBuffer(&second, buffer, 0), kStatusSuccess);
        const Message held(second);
        EXPECT_EQ(msgOpenEnvelope(second), kStatusSuccess);
        const bool moves = bytes == moved || bytes == wrapped;
        EXPECT_EQ(second->buffer != buffer, moves);  // opening copies only to change
        const std::string shown = textOf(second);
        EXPECT_EQ(pelmoMsg_SetSendSubject(second, "Other.Subject"), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_SetSourcePort(second, 1), kStatusSuccess);
        EXPECT_EQ(msgStripEnvelope(second), kStatusSuccess);
        EXPECT_EQ(wireOf(first.get()), bytes);
        EXPECT_EQ(sendSubjectOf(second), "Other.Subject");
        EXPECT_EQ(textOf(second), shown);
    }
}

TEST(Envelope, ClosesAndOpensAgain) {
    const Message msg = appMessage();
    ASSERT_EQ(pelmoMsg_SetSendSubject(msg.get(), "A.B"), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_SetSourcePort(msg.get(), 7500), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_AddI8(msg.get(), "o", 8, 4), kStatusSuccess);
    EXPECT_EQ(msgCloseEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(msgCloseEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(textOf(msg.get()), "{sub=[A.B] mtype=\"D\" cid=7500 data={n=7 o[4]=8}}");
    EXPECT_EQ(sendSubjectOf(msg.get()), kNotFound);
    uint16_t port = 0;
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), &port), kStatusSuccess);  // stays behind a close
    EXPECT_EQ(port, 7500);

    // What is added while it is closed is the envelope's.
    ASSERT_EQ(pelmoMsg_AddI8(msg.get(), "x", 1, 4), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "cid", 0), kStatusSuccess);
    EXPECT_EQ(msgOpenEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(msgOpenEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(textOf(msg.get()), "{n=7 o[4]=8}");
    EXPECT_EQ(outerTextOf(msg.get()), "{sub=[A.B] mtype=\"D\" x[4]=1 data={n=7 o[4]=8}}");
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), &port), kStatusNotFound);
    EXPECT_TRUE(msgHasForeign(msg.get()));

    // A bit stays until it is cleared, whatever becomes of the field.
    ASSERT_EQ(msgStripEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(outerTextOf(msg.get()), "{sub=[A.B] mtype=\"D\" data={n=7 o[4]=8}}");
    EXPECT_TRUE(msgHasForeign(msg.get()));
    EXPECT_EQ(msgClearForeign(msg.get()), kStatusSuccess);
    EXPECT_FALSE(msgHasForeign(msg.get()));

    // A source port that lies behind an image that has shrunk isn't read.
    ASSERT_EQ(pelmoMsg_SetSourcePort(msg.get(), 7500), kStatusSuccess);
    ASSERT_EQ(msgCloseEnvelope(msg.get()), kStatusSuccess);
    for (const char* name : {"data", "cid", "mtype", "sub"}) {
        ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), name, 0), kStatusSuccess);
    }
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), &port), kStatusNotFound);
}

TEST(Envelope, TellsBadArguments) {
    const Message msg = appMessage();
    pelmoMsg dead{};
    dead.magic = kMessageDead;
    pelmoMsg* out = nullptr;
    const char* text = nullptr;
    uint16_t port = 0;
    for (const pelmoStatus status :
         {pelmoMsg_SetSendSubject(&dead, "A"), pelmoMsg_SetReplySubject(&dead, ""),
          pelmoMsg_SetSourcePort(&dead, 1), pelmoMsg_GetSendSubject(&dead, nullptr),
          pelmoMsg_GetReplySubject(nullptr, nullptr), pelmoMsg_GetSource(&dead, nullptr),
          pelmoMsg_PrintEnvelope(nullptr), msgOpenEnvelope(nullptr), msgCloseEnvelope(&dead),
          msgSetMtype(&dead, nullptr), msgCopyWithEnvelope(nullptr, &out),
          msgStripEnvelope(&dead)}) {
        EXPECT_EQ(status, kStatusInvalidMessage);
    }
    EXPECT_EQ(pelmoMsg_GetSendSubject(msg.get(), nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetReplySubject(msg.get(), nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), &port), kStatusNotFound);
    EXPECT_EQ(msgSetMtype(msg.get(), nullptr), kStatusInvalidArgument);
    EXPECT_EQ(msgCopyWithEnvelope(msg.get(), nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoMsg_GetSendSubject(msg.get(), &text), kStatusNotFound);

    // Fields of the reserved names but of another type can't be rewritten.
    const Message odd = messageFrom(
        outer(field("mtype", *noneValue()) + field("cid", *stringValue("c")) + kData + kApp));
    ASSERT_EQ(msgOpenEnvelope(odd.get()), kStatusSuccess);
    const Bytes before = wireOf(odd.get());
    EXPECT_EQ(msgSetMtype(odd.get(), "D"), kStatusInvalidType);
    EXPECT_EQ(pelmoMsg_SetSourcePort(odd.get(), 1), kStatusInvalidType);
    EXPECT_EQ(wireOf(odd.get()), before);
    EXPECT_EQ(textOf(odd.get()), "{n=7}");
}

TEST(Envelope, IsPrintedWithoutBeingLeftClosed) {
    const Message msg = appMessage();
    ASSERT_EQ(pelmoMsg_SetSendSubject(msg.get(), "%s%n.B"), kStatusSuccess);
    testing::internal::CaptureStderr();
    EXPECT_EQ(pelmoMsg_PrintEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Print(msg.get()), kStatusSuccess);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "{sub=[%s%n.B] mtype=\"D\" data={n=7}}\n{n=7}\n");
    EXPECT_EQ(sendSubjectOf(msg.get()), "%s%n.B");
}

}  // namespace
