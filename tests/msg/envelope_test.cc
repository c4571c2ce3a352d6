#include <map>
#include <utility>

#include "lib/msg/envelope_internal.h"
#include "tests/support/envelope_bytes.h"

namespace {

TEST(Envelope, IsWrittenToTheByte) {
    // Uppercase letters take away what the lowercase ones set.
    const std::map<char, pelmoStatus (*)(pelmoMsg*)> calls = {
        {'s', [](pelmoMsg* msg) { return pelmoMsg_SetSendSubject(msg, "A.B"); }},
        {'S', [](pelmoMsg* msg) { return pelmoMsg_SetSendSubject(msg, nullptr); }},
        {'r', [](pelmoMsg* msg) { return pelmoMsg_SetReplySubject(msg, "R"); }},
        {'R', [](pelmoMsg* msg) { return pelmoMsg_SetReplySubject(msg, nullptr); }},
        {'p', [](pelmoMsg* msg) { return pelmoMsg_SetSourcePort(msg, 7500); }},
        {'k', [](pelmoMsg* msg) { return msgSetMtype(msg, "Q"); }}};
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
    for (const auto& [letters, envelope] : cases) {
        SCOPED_TRACE(letters);
        const Message msg = appMessage();
        for (const char letter : letters)
            EXPECT_EQ(calls.at(letter)(msg.get()), kStatusSuccess);
        EXPECT_EQ(wireOf(msg.get()), outer(envelope + kData + kApp));
        EXPECT_EQ(msg->dataOffset, 16 + envelope.size());
        EXPECT_EQ(imageOf(msg.get()), kApp);
        EXPECT_EQ(textOf(msg.get()), "{n=7}");
        EXPECT_FALSE(msgHasForeign(msg.get()));
    }
    const Message plain = appMessage();
    for (const char letter : {'S', 'R'})
        EXPECT_EQ(calls.at(letter)(plain.get()), kStatusSuccess);
    EXPECT_EQ(wireOf(plain.get()), kApp);
}

// What opening finds, in words: nothing for a message of {n=7} alone. `after` is the image that
// opening leaves.
std::string open(const Bytes& image, const Bytes& after) {
    const Message other = messageFrom(image);
    pelmoMsg* msg = nullptr;
    EXPECT_EQ(msgCreateOverBuffer(&msg, other->buffer, 0), kStatusSuccess);
    const Message held(msg);
    const pelmoStatus status = msgOpenEnvelope(msg);
    EXPECT_EQ(msgOpenEnvelope(msg), status);
    EXPECT_EQ(msg->dataOffset == 0, status != kStatusSuccess || image.size() == 8);
    // Opening keeps nothing of what it had to read.
    EXPECT_EQ(msg->bufferRefs, 0u);
    EXPECT_EQ(msg->ownedBlocks, nullptr);
    EXPECT_EQ(msg->heldBuffers, nullptr);
    EXPECT_EQ(wireOf(msg), after);
    EXPECT_EQ(msg->buffer == other->buffer, after == image);
    std::string found;
    const std::string send = sendSubjectOf(msg), reply = replySubjectOf(msg);
    uint16_t port = 0;
    if (status != kStatusSuccess) found += " status " + std::to_string(status);
    if (msg->envelopeFlags != 0) found += " flags " + std::to_string(msg->envelopeFlags);
    if (send != kNotFound) found += " to " + send;
    if (reply != kNotFound) found += " reply " + reply;
    if (pelmoMsg_GetSource(msg, &port) == kStatusSuccess) found += " port " + std::to_string(port);
    if (status != kStatusSuccess) return found;

    // No change reaches the bytes of the other holder.
    const std::string shown = textOf(msg);
    EXPECT_EQ(pelmoMsg_SetReplySubject(msg, "Other"), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_SetSourcePort(msg, 1), kStatusSuccess);
    EXPECT_EQ(msgStripEnvelope(msg), kStatusSuccess);
    EXPECT_EQ(replySubjectOf(msg), "Other");
    EXPECT_EQ(textOf(msg), shown);
    EXPECT_EQ(wireOf(other.get()), image);
    EXPECT_EQ(outerTextOf(msg).find("cid"), std::string::npos);  // neither it nor what is foreign
    EXPECT_EQ(outerTextOf(msg).find("x="), std::string::npos);
    EXPECT_EQ(msgClearForeign(msg), kStatusSuccess);
    EXPECT_FALSE(msgHasForeign(msg));
    return shown == "{n=7}" ? found : found + " " + shown;
}

TEST(Envelope, OpensWhateverOrderItsFieldsHaveOrStaysClosed) {
    const Bytes data = kData + kApp;
    const std::string kCorrupt = " status " + std::to_string(kStatusCorruptMessage);
    const auto reply = [&](const Bytes& value) {
        return recordOf("return", 0, *blockValue(FIELD_STRING, value)) + data;
    };
    Bytes badMagic = data;
    badMagic[12] ^= 1;
    const Bytes text = recordOf("x", 0, *stringValue("y"));
    const Bytes number = recordOf("ro", 0, *scalarValue(FIELD_I32, &pelmoFieldData::i32, 5));
    const Bytes wrappedId = kData + outer(recordOf("_data_", 5, *stringValue("v")));
    const struct {
        const char* what;
        Bytes fields;
        std::string found;
        Bytes after = {};  // where it isn't what it was
    } cases[] = {
        {"data alone", data, ""},
        {"all", kSubAB + kReturnR + kMtypeD + kCid + data, " to A.B reply R port 7500"},
        {"ro and cmnam", number + recordOf("cmnam", 0, *noneValue()) + data, " flags 131"},
        {"pmtx", recordOf("pmtx", 0, *noneValue()) + data, " flags 132"},
        {"another", text + data, " flags 128"},
        {"names that begin alike",
         recordOf("subs", 0, *noneValue()) + recordOf("c", 0, *noneValue()) + data, " flags 128"},
        {"bytes as the subject", Bytes{4, 's', 'u', 'b', 0, 7, 121, 0, 3, 0} + data, ""},
        {"data first", data + kSubAB, " to A.B", kSubAB + data},
        {"two of data", data + kData + outer({}), " flags 128 {}"},
        {"no data", kSubAB, " to A.B {}", kSubAB + kData + outer({})},
        {"a text as data, with an id, first", recordOf("data", 5, *stringValue("v")) + kSubAB,
         " to A.B {_data_[5]=\"v\"}", kSubAB + wrappedId},
        {"reply of 254 characters", reply(Bytes(254, 'r') + Bytes{0}),
         " reply " + std::string(254, 'r')},
        {"reply of 255 characters", reply(Bytes(255, 'r') + Bytes{0}), kCorrupt},
        {"reply of no bytes", reply({}), kCorrupt},
        {"reply without its NUL", reply({'a', 'b'}), kCorrupt},
        {"reply with a NUL within", reply({'a', 0, 'b', 0}), kCorrupt},
        {"reply whose prefix doesn't cover itself",
         Bytes{7, 'r', 'e', 't', 'u', 'r', 'n', 0, 8, 121, 0, 0} + data, kCorrupt},
        {"subject in a short class", Bytes{4, 's', 'u', 'b', 0, 2, 3, 0, 3, 0} + data, kCorrupt},
        {"subject as a text", recordOf("sub", 0, *stringValue("A.B")) + data, kCorrupt},
        {"data with another magic", badMagic, kCorrupt},
        {"data without a head", Bytes{5, 'd', 'a', 't', 'a', 0, 1, 122, 0, 0, 0, 4}, kCorrupt},
        {"a record that is cut off", {2, 'a'}, kCorrupt},
    };
    for (const auto& [what, fields, found, after] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(open(outer(fields), outer(after.empty() ? fields : after)), found);
    }
}

TEST(Envelope, TakesSubjectsUpToTheirLimits) {
    const std::string element(95, 'e');
    const std::string packs200 = element + "." + element + "." + "a";  // 3 + 97 + 97 + 3
    const std::string inbox = "_INBOX." + std::string(127, 'i') + "." + std::string(113, 'i');
    const struct {
        std::string text;
        bool send, reply;
    } cases[] = {
        {packs200, true, true},
        {inbox, true, false},
        {inbox + "i", false, false},
        {"A..B", false, true},
        {std::string(199, 'r'), false, true},
        {std::string(200, 'r'), false, false},
    };
    for (const auto& [text, send, reply] : cases) {
        SCOPED_TRACE(text);
        const Message msg = appMessage();
        const auto status = [](bool ok) { return ok ? kStatusSuccess : kStatusInvalidSubject; };
        EXPECT_EQ(pelmoMsg_SetSendSubject(msg.get(), text.c_str()), status(send));
        EXPECT_EQ(sendSubjectOf(msg.get()), send ? text : kNotFound);
        EXPECT_EQ(pelmoMsg_SetReplySubject(msg.get(), text.c_str()), status(reply));
        EXPECT_EQ(replySubjectOf(msg.get()), reply ? text : kNotFound);
    }
}

// A source port that lies past the end of an image that has shrunk isn't read.
TEST(Envelope, HasNoPortOnceItsFieldsAreGone) {
    const Message msg = appMessage();
    ASSERT_EQ(pelmoMsg_SetSendSubject(msg.get(), "A.B"), kStatusSuccess);
    ASSERT_EQ(pelmoMsg_SetSourcePort(msg.get(), 7500), kStatusSuccess);
    ASSERT_EQ(msgCloseEnvelope(msg.get()), kStatusSuccess);
    EXPECT_EQ(textOf(msg.get()), "{sub=[A.B] mtype=\"D\" cid=7500 data={n=7}}");
    for (const char* name : {"data", "cid", "mtype", "sub"}) {
        ASSERT_EQ(pelmoMsg_RemoveFieldEx(msg.get(), name, 0), kStatusSuccess);
    }
    uint16_t port = 0;
    EXPECT_EQ(pelmoMsg_GetSource(msg.get(), &port), kStatusNotFound);
}

TEST(Envelope, IsCreatedAroundFieldsOrBytes) {
    const SharedValue values[] = {stringValue(std::string(300, 's')), messageValue(kApp)};
    pelmoMsgField fields[] = {values[0]->field(), values[1]->field()};
    fields[0].name = "";
    fields[0].id = 65535;
    fields[0].size = 0;  // to be worked out
    fields[1].name = "m";
    pelmoMsg* made = nullptr;
    ASSERT_EQ(msgCreateWithFields(&made, "A.B", nullptr, fields, 2), kStatusSuccess);
    EXPECT_EQ(wireOf(Message(made).get()),
              outer(kSubAB + kMtypeD + kData +
                    imageOf({recordOf("", 65535, *values[0]), recordOf("m", 0, *values[1])})));
    EXPECT_EQ(msgCreateWithFields(&made, "A..B", nullptr, fields, 2), kStatusInvalidSubject);
    fields[1].id = 65535;
    EXPECT_EQ(msgCreateWithFields(&made, "A.B", nullptr, fields, 2), kStatusIdInUse);
    fields[1] = {};
    EXPECT_EQ(msgCreateWithFields(&made, "A.B", nullptr, fields, 2), kStatusInvalidType);
    for (const uint32_t size : {0u, 119u, 120u, 29999u, 30000u}) {
        const Bytes bytes = patternBytes(size, 1);
        ASSERT_EQ(msgCreateWithOpaque(&made, "A.B", "R", bytes.data(), size), kStatusSuccess);
        EXPECT_EQ(wireOf(Message(made).get()),
                  outer(kSubAB + kReturnR + kMtypeD + kData +
                        outer(recordOf("", 0, *blockValue(FIELD_OPAQUE, bytes)))));
    }
    EXPECT_EQ(msgCreateEnveloped(&made, nullptr, nullptr, UINT32_MAX), kStatusNoMemory);
    EXPECT_EQ(msgCreateWithOpaque(&made, nullptr, nullptr, "", UINT32_MAX), kStatusNoMemory);
}

// A message within another one's image gets an envelope of its own before that shows.
TEST(Envelope, IsLentUntilItShows) {
    const Bytes lent = kMtypeD + kSubAB;
    const Message carrier = messageFrom(outer(lent + kData + kApp));
    const auto subject = kMessageHeadBytes + static_cast<uint32_t>(lent.size()) - 9;
    const auto data = kMessageHeadBytes + static_cast<uint32_t>((lent + kData).size());
    pelmoMsg* made = nullptr;
    EXPECT_EQ(msgCreateWithin(&made, carrier.get(), {0, 0, data}), kStatusInvalidArgument);
    ASSERT_EQ(msgCreateWithin(&made, carrier.get(), {subject, 0, data}), kStatusSuccess);
    const Message msg(made);
    EXPECT_EQ(msgCloseEnvelope(made), kStatusSuccess);
    EXPECT_EQ(wireOf(made), outer(kSubAB + kMtypeD + kData + kApp));
}

}  // namespace
