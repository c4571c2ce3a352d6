
#include <optional>
#include <utility>

#include "lib/msg/envelope_internal.h"
#include "tests/support/envelope_bytes.h"

namespace {

TEST(Envelope, IsLaidDownToTheByte) {
    // By a letter: s and r set send and reply subject, S and R take them away, p the port, k a
    // kind.
    const auto call = [](char letter, pelmoMsg* msg) {
        switch (letter) {
            case 's':
            case 'S':
                return pelmoMsg_SetSendSubject(msg, letter == 's' ? "A.B" : nullptr);
            case 'r':
            case 'R':
                return pelmoMsg_SetReplySubject(msg, letter == 'r' ? "R" : nullptr);
            case 'p':
                return pelmoMsg_SetSourcePort(msg, 7500);
            default:
                return msgSetMtype(msg, "Q");
        }
    };
    Bytes kindQ = kMtypeD;
    kindQ[9] = 'Q';
    const std::pair<std::string, Bytes> cases[] = {
        {"s", kSubAB + kMtypeD},
        {"rR", {}},
        {"sr", kSubAB + kMtypeD + kReturnR},
        {"rs", kReturnR + kSubAB + kMtypeD},
        {"prs", kCid + kReturnR + kSubAB + kMtypeD},
        {"ks", kindQ + kSubAB},
        {"srS", kMtypeD + kReturnR},
        {"SRp", kCid},
    };
    for (const auto& [calls, envelope] : cases) {
        SCOPED_TRACE(calls);
        const Message msg = appMessage();
        for (const char letter : calls) {
            EXPECT_EQ(call(letter, msg.get()), kStatusSuccess);
        }
        EXPECT_EQ(wireOf(msg.get()), outer(envelope + kData + kApp));
        EXPECT_EQ(msg->dataOffset, 16 + envelope.size());
        EXPECT_EQ(imageOf(msg.get()), kApp);
        EXPECT_EQ(textOf(msg.get()), "{n=7}");
        EXPECT_FALSE(msgHasForeign(msg.get()));
    }
    const Message plain = appMessage();
    EXPECT_EQ(call('S', plain.get()), kStatusSuccess);
    EXPECT_EQ(call('R', plain.get()), kStatusSuccess);
    EXPECT_EQ(wireOf(plain.get()), kApp);
}

// What opening finds; offsets as distances would say no more than what the getters give.
struct Opened {
    pelmoStatus status = kStatusSuccess;
    uint32_t flags = 0;
    std::string shown = "{n=7}";  // where it opens
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
    const Message other = messageFrom(image);
    pelmoMsg* msg = nullptr;
    EXPECT_EQ(msgCreateOverBuffer(&msg, other->buffer, 0), kStatusSuccess);
    const Message held(msg);
    Opened opened;
    opened.status = msgOpenEnvelope(msg);
    EXPECT_EQ(msgOpenEnvelope(msg), opened.status);
    EXPECT_EQ(msg->dataOffset == 0, opened.status != kStatusSuccess || image.size() == 8);
    // Opening keeps nothing of what it had to read.
    EXPECT_EQ(msg->bufferRefs, 0u);
    EXPECT_EQ(msg->ownedBlocks, nullptr);
    EXPECT_EQ(msg->heldBuffers, nullptr);
    opened.flags = msg->envelopeFlags;
    opened.send = sendSubjectOf(msg);
    opened.reply = replySubjectOf(msg);
    uint16_t port = 0;
    if (pelmoMsg_GetSource(msg, &port) == kStatusSuccess) opened.port = port;
    if (wireOf(msg) != image) opened.after = wireOf(msg);
    EXPECT_EQ(msg->buffer != other->buffer, opened.after.has_value());
    if (opened.status != kStatusSuccess) return opened;

    // No change reaches the bytes of the other holder.
    opened.shown = textOf(msg);
    EXPECT_EQ(pelmoMsg_SetReplySubject(msg, "Other"), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_SetSourcePort(msg, 1), kStatusSuccess);
    EXPECT_EQ(msgStripEnvelope(msg), kStatusSuccess);
    EXPECT_EQ(replySubjectOf(msg), "Other");
    EXPECT_EQ(textOf(msg), opened.shown);
    EXPECT_EQ(wireOf(other.get()), image);
    return opened;
}

TEST(Envelope, OpensWhateverOrderItsFieldsHaveOrStaysClosed) {
    const Bytes data = kData + kApp;
    const Opened kCorrupt = {.status = kStatusCorruptMessage};
    const auto reply = [&](const Bytes& value) {
        return field("return", *blockValue(FIELD_STRING, value)) + data;
    };
    Bytes badMagic = data;
    badMagic[12] ^= 1;
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
        {"ro and cmnam", number + field("cmnam", *noneValue()) + data, {.flags = 131}},
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
        {"reply of 254 characters",
         reply(Bytes(254, 'r') + Bytes{0}),
         {.reply = std::string(254, 'r')}},
        {"reply of 255 characters", reply(Bytes(255, 'r') + Bytes{0}), kCorrupt},
        {"reply of no bytes", reply({}), kCorrupt},
        {"reply without its NUL", reply({'a', 'b'}), kCorrupt},
        {"reply with a NUL within", reply({'a', 0, 'b', 0}), kCorrupt},
        {"reply whose prefix doesn't cover itself",
         Bytes{7, 'r', 'e', 't', 'u', 'r', 'n', 0, 8, 121, 0, 0} + data, kCorrupt},
        {"subject in a short class", Bytes{4, 's', 'u', 'b', 0, 2, 3, 0, 3, 0} + data, kCorrupt},
        {"subject with an element that runs over",
         Bytes{4, 's', 'u', 'b', 0, 2, 121, 0, 6, 1, 9, 'A', 0} + data, kCorrupt},
        {"subject as a text", field("sub", *stringValue("A.B")) + data, kCorrupt},
        {"data with another magic", badMagic, kCorrupt},
        {"data without a head", Bytes{5, 'd', 'a', 't', 'a', 0, 1, 122, 0, 0, 0, 4}, kCorrupt},
        {"data in a short class", Bytes{5, 'd', 'a', 't', 'a', 0, 1, 0}, kCorrupt},
        {"data of an unknown type",
         Bytes{5, 'd', 'a', 't', 'a', 0, 200, 1, 1},
         {.status = kStatusInvalidMessage}},
        {"a record that is cut off", {2, 'a'}, kCorrupt},
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

TEST(Envelope, RefusesToRewriteWhatIsOfAnotherType) {
    const Message odd = messageFrom(
        outer(field("mtype", *noneValue()) + field("cid", *stringValue("c")) + kData + kApp));
    ASSERT_EQ(msgOpenEnvelope(odd.get()), kStatusSuccess);
    const Bytes before = wireOf(odd.get());
    EXPECT_EQ(msgSetMtype(odd.get(), "D"), kStatusInvalidType);
    EXPECT_EQ(pelmoMsg_SetSourcePort(odd.get(), 1), kStatusInvalidType);
    EXPECT_EQ(wireOf(odd.get()), before);
}

// "data" has moved by then; what is looked up by its id has moved with it.
TEST(Envelope, KeepsItsFieldsWhenItCannotOpen) {
    const Bytes x = field("x", *stringValue("1"), 7), y = field("y", *stringValue("2"), 8);
    const Bytes badSubject = field("sub", *stringValue("A.B"));
    const Message msg = messageFrom(outer(x + kData + kApp + y + badSubject));
    EXPECT_EQ(msgOpenEnvelope(msg.get()), kStatusCorruptMessage);
    EXPECT_EQ(wireOf(msg.get()), outer(x + y + badSubject + kData + kApp));
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_GetString(msg.get(), nullptr, &text, 8), kStatusSuccess);
    EXPECT_STREQ(text, "2");
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

TEST(Envelope, IsCreatedWithFieldsAsAddingThemDoes) {
    const struct {
        SharedValue value;
        const char* name;
        uint16_t id;
    } given[] = {
        {scalarValue(FIELD_U16, &FieldData::u16, uint16_t{9}), "a", 3},
        {stringValue(std::string(300, 's')), "", 65535},
        {stringArrayValue({"one", ""}), nullptr, 0},
        {messageValue(kApp), "m", 1},
    };
    std::vector<pelmoMsgField> fields;
    std::vector<Bytes> records;
    for (const auto& [value, name, id] : given) {
        fields.push_back(value->field());
        fields.back().name = name;
        fields.back().id = id;
        records.push_back(recordOf(name, id, *value));
    }
    fields[1].size = 0;  // to be worked out

    const auto create = [&](pelmoMsg** out) {
        return msgCreateWithFields(out, "A.B", nullptr, fields.data(),
                                   static_cast<uint32_t>(fields.size()));
    };
    pelmoMsg* made = nullptr;
    ASSERT_EQ(create(&made), kStatusSuccess);
    const Message msg(made);
    EXPECT_EQ(loadBe32At(msgImage(made)), made->length);  // flushed already
    EXPECT_EQ(wireOf(made), outer(kSubAB + kMtypeD + kData + imageOf(records)));
    uint16_t number = 0;
    EXPECT_EQ(pelmoMsg_GetU16(made, nullptr, &number, 3), kStatusSuccess);
    EXPECT_EQ(number, 9);

    made = nullptr;
    ASSERT_EQ(msgCreateWithFields(&made, nullptr, nullptr, nullptr, 0), kStatusSuccess);
    EXPECT_EQ(wireOf(Message(made).get()), outer(kMtypeD + kData + outer({})));
    EXPECT_EQ(create(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateWithFields(&made, nullptr, nullptr, nullptr, 1), kStatusInvalidArgument);

    pelmoMsg* none = nullptr;
    fields[3].id = 65535;
    EXPECT_EQ(create(&none), kStatusIdInUse);
    fields[3] = {};
    EXPECT_EQ(create(&none), kStatusInvalidType);
    EXPECT_EQ(msgCreateWithFields(&none, "A..B", nullptr, nullptr, 0), kStatusInvalidSubject);
    EXPECT_EQ(none, nullptr);
}

TEST(Envelope, IsCreatedAroundBytes) {
    for (const uint32_t size : {0u, 119u, 120u, 29999u, 30000u}) {
        const Bytes bytes = patternBytes(size, 1);
        pelmoMsg* made = nullptr;
        ASSERT_EQ(msgCreateWithOpaque(&made, "A.B", "R", bytes.data(), size), kStatusSuccess);
        EXPECT_EQ(wireOf(Message(made).get()),
                  outer(kSubAB + kReturnR + kMtypeD + kData +
                        outer(field("", *blockValue(FIELD_OPAQUE, bytes)))));
    }
    pelmoMsg* made = nullptr;
    EXPECT_EQ(msgCreateWithOpaque(&made, nullptr, nullptr, nullptr, 1), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateWithOpaque(nullptr, nullptr, nullptr, "", 1), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateEnveloped(nullptr, nullptr, nullptr, 0), kStatusInvalidArgument);
    EXPECT_EQ(msgCreateEnveloped(&made, nullptr, nullptr, UINT32_MAX), kStatusNoMemory);
    EXPECT_EQ(msgCreateWithOpaque(&made, nullptr, nullptr, "", UINT32_MAX), kStatusNoMemory);
    EXPECT_EQ(made, nullptr);
}

TEST(Envelope, IsNotTheApplicationsFieldsOfThoseNames) {
    const Message msg = appMessage();
    ASSERT_EQ(pelmoMsg_SetSendSubject(msg.get(), "A.B"), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_UpdateSubjectText(msg.get(), "sub", "OTHER", 0), kStatusSuccess);
    EXPECT_EQ(sendSubjectOf(msg.get()), "A.B");
    ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), "sub", 0), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_AddI32(msg.get(), "sub", 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_UpdateSubjectText(msg.get(), "sub", "OTHER", 0), kStatusInvalidType);
    EXPECT_EQ(sendSubjectOf(msg.get()), "A.B");
}

// What lies within another message's image shows and sends nothing of that one, at its end or not.
TEST(Envelope, IsLentUntilItShows) {
    using Call = pelmoStatus (*)(pelmoMsg * msg);
    const Call none = [](pelmoMsg*) -> pelmoStatus { return kStatusSuccess; };
    const struct {
        Call call;
        Bytes envelope, app;
    } cases[] = {
        {none, kSubAB + kReturnR + kMtypeD, kApp},
        {[](pelmoMsg* msg) { return pelmoMsg_SetSendSubject(msg, "A.B"); },
         kSubAB + kReturnR + kMtypeD, kApp},
        {[](pelmoMsg* msg) { return pelmoMsg_SetReplySubject(msg, nullptr); }, kSubAB + kMtypeD,
         kApp},
        {[](pelmoMsg* msg) { return pelmoMsg_RemoveFieldEx(msg, "n", 0); },
         kSubAB + kReturnR + kMtypeD, outer({})},
        {[](pelmoMsg* msg) { return pelmoMsg_UpdateSubjectText(msg, "sub", "X", 0); },
         kSubAB + kReturnR + kMtypeD,
         imageOf({{2, 'n', 0, 11, 1, 7}, field("sub", *subjectValue("X"))})},
    };
    const Bytes lentFields = kReturnR + kMtypeD + kSubAB;
    for (const Bytes& behind : {Bytes{}, kCid}) {
        for (const auto& [call, envelope, app] : cases) {
            const Message carrier = messageFrom(outer(lentFields + kData + kApp + behind));
            const uint32_t data =
                kMessageHeadBytes + static_cast<uint32_t>((lentFields + kData).size());
            const auto text = kMessageHeadBytes + static_cast<uint32_t>(kReturnR.size()) - 2;
            const auto subject = kMessageHeadBytes + static_cast<uint32_t>(lentFields.size()) - 9;
            pelmoMsg* made = nullptr;
            EXPECT_EQ(msgCreateWithin(&made, carrier.get(), {0, text, data}),
                      kStatusInvalidArgument);
            ASSERT_EQ(msgCreateWithin(&made, carrier.get(), {subject, text, data}), kStatusSuccess);
            const Message msg(made);
            EXPECT_EQ(textOf(made), "{n=7}");
            const char* reply = nullptr;
            EXPECT_EQ(pelmoMsg_GetReplySubject(made, &reply), kStatusSuccess);
            EXPECT_STREQ(reply, "R");
            pelmoMsg* copied = nullptr;
            ASSERT_EQ(msgShareCopy(&copied, made), kStatusSuccess);
            const Message copy(copied);
            EXPECT_EQ(call(made), kStatusSuccess);
            EXPECT_EQ(imageOf(made), app);
            for (pelmoMsg* closed : {made, copied})
                EXPECT_EQ(msgCloseEnvelope(closed), kStatusSuccess);
            EXPECT_EQ(wireOf(made), outer(envelope + kData + app));
            EXPECT_EQ(wireOf(copied), outer(cases[0].envelope + kData + kApp));
            EXPECT_STREQ(reply, "R");  // what was read outlives the change
            EXPECT_EQ(wireOf(carrier.get()), outer(lentFields + kData + kApp + behind));
        }
    }
}

}  // namespace
