#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lib/msg/envelope_internal.h"
#include "tests/support/envelope_bytes.h"

namespace {

TEST(EnvelopeFaults, StaysClosedWhereItIsMalformed) {
    const Bytes data = kData + kApp;
    const auto reply = [&](const Bytes& value) {
        return field("return", *blockValue(FIELD_STRING, value)) + data;
    };
    Bytes badMagic = data, shortHead = data;
    badMagic[12] ^= 1;
    const struct {
        const char* what;
        Bytes fields;
        pelmoStatus status;
    } cases[] = {
        {"reply of 254 characters", reply(Bytes(254, 'r') + Bytes{0}), kStatusSuccess},
        {"reply of 255 characters", reply(Bytes(255, 'r') + Bytes{0}), kStatusCorruptMessage},
        {"reply of no bytes", reply({}), kStatusCorruptMessage},
        {"reply without its NUL", reply({'a', 'b'}), kStatusCorruptMessage},
        {"reply with a NUL within", reply({'a', 0, 'b', 0}), kStatusCorruptMessage},
        {"reply whose prefix doesn't cover itself",
         Bytes{7, 'r', 'e', 't', 'u', 'r', 'n', 0, 8, 121, 0, 0} + data, kStatusCorruptMessage},
        {"subject in a short class", Bytes{4, 's', 'u', 'b', 0, 2, 3, 0, 3, 0} + data,
         kStatusCorruptMessage},
        {"subject with an element that runs over",
         Bytes{4, 's', 'u', 'b', 0, 2, 121, 0, 6, 1, 9, 'A', 0} + data, kStatusCorruptMessage},
        {"subject as a text", field("sub", *stringValue("A.B")) + data, kStatusCorruptMessage},
        {"data with another magic", badMagic, kStatusCorruptMessage},
        {"data without a head", Bytes{5, 'd', 'a', 't', 'a', 0, 1, 122, 0, 0, 0, 4},
         kStatusCorruptMessage},
        {"data in a short class", Bytes{5, 'd', 'a', 't', 'a', 0, 1, 0}, kStatusCorruptMessage},
        {"data of an unknown type", Bytes{5, 'd', 'a', 't', 'a', 0, 200, 1, 1},
         kStatusInvalidMessage},
    };
    for (const auto& [what, fields, status] : cases) {
        SCOPED_TRACE(what);
        const Message msg = messageFrom(outer(fields));
        EXPECT_EQ(msgOpenEnvelope(msg.get()), status);
        EXPECT_EQ(wireOf(msg.get()), outer(fields));
        if (status == kStatusSuccess) continue;
        EXPECT_EQ(msg->dataOffset, 0u);
        EXPECT_EQ(msg->envelopeFlags, 0u);
        EXPECT_EQ(msgOpenEnvelope(msg.get()), status);
        EXPECT_EQ(sendSubjectOf(msg.get()), kNotFound);
        EXPECT_EQ(replySubjectOf(msg.get()), kNotFound);
    }
    const Message cut = messageFrom(outer({2, 'a'}));
    EXPECT_EQ(msgOpenEnvelope(cut.get()), kStatusCorruptMessage);
}

// "data" has moved by then; what is looked up by its id has moved with it.
TEST(EnvelopeFaults, KeepsItsFieldsWhenItCannotOpen) {
    const Bytes x = field("x", *stringValue("1"), 7), y = field("y", *stringValue("2"), 8);
    const Bytes badSubject = field("sub", *stringValue("A.B"));
    const Message msg = messageFrom(outer(x + kData + kApp + y + badSubject));
    EXPECT_EQ(msgOpenEnvelope(msg.get()), kStatusCorruptMessage);
    EXPECT_EQ(wireOf(msg.get()), outer(x + y + badSubject + kData + kApp));
    const char* text = nullptr;
    ASSERT_EQ(pelmoMsg_GetString(msg.get(), nullptr, &text, 8), kStatusSuccess);
    EXPECT_STREQ(text, "2");
}

}  // namespace
