// The opening of a connection, byte by byte.

#include "lib/transport/daemon/handshake.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "lib/base/bytes.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes words(std::initializer_list<uint32_t> numbers) {
    Bytes bytes(numbers.size() * 4);
    size_t at = 0;
    for (const uint32_t number : numbers)
        storeBe32At(bytes.data() + 4 * at++, number);
    return bytes;
}

Bytes frame(uint32_t type, uint32_t version = kHelloVersion, uint32_t limit = kHelloMostBytes) {
    HelloFrame made;
    ipqHelloInit(&made);
    storeBe32At(made.bytes, type);
    storeBe32At(made.bytes + 4, version);
    storeBe32At(made.bytes + 20, limit);
    return {made.bytes, made.bytes + kHelloBytes};
}

struct Row {
    const char* what;
    std::vector<Bytes> taken;
    HandshakeOutcome outcome;
    pelmoStatus status = kStatusSuccess;
    pelmoStatus cutOff = kStatusInitFailed;
    uint32_t lastAnswer = 0;  // the type of the last frame that was answered
};

const Row kRows[] = {
    {"nothing yet", {}, kHandshakeGoesOn, kStatusSuccess, kStatusDaemonNotConnected},
    {"another first word", {words({1, 4, 0})}, kHandshakeFailed, kStatusDaemonNotConnected},
    {"too old", {words({0, 2, 0})}, kHandshakeFailed, kStatusWrongVersion},
    {"too new", {words({0, 5, 0})}, kHandshakeFailed, kStatusWrongVersion},
    {"the oldest", {words({0, 3, 9})}, kHandshakeGoesOn},
    {"agreed at once", {words({0, 4, 0}), frame(kHelloAgreed)}, kHandshakeAgreed},
    {"offer",
     {words({0, 4, 0}), frame(kHelloOffer)},
     kHandshakeGoesOn,
     0,
     kStatusInitFailed,
     kHelloCounter},
    {"offer and counter-offer",
     {words({0, 4, 0}), frame(kHelloOffer), frame(kHelloCounter)},
     kHandshakeGoesOn,
     0,
     kStatusInitFailed,
     kHelloAgreed},
    {"offer and agreed",
     {words({0, 4, 0}), frame(kHelloOffer), frame(kHelloAgreed)},
     kHandshakeAgreed},
    {"refused", {words({0, 4, 0}), frame(kHelloRefused)}, kHandshakeFailed, kStatusInitFailed},
    {"an unknown type", {words({0, 4, 0}), frame(4)}, kHandshakeFailed, kStatusInitFailed},
    {"an offer that can't be met",
     {words({0, 4, 0}), frame(kHelloOffer, 3)},
     kHandshakeFailed,
     kStatusInitFailed},
    // Whether these terms can be kept is the queue's to say.
    {"agreed on something else", {words({0, 4, 0}), frame(kHelloAgreed, 3)}, kHandshakeAgreed},
};

TEST(Handshake, AnswersWhatTheDaemonSays) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        for (const bool isLocal : {false, true}) {
            Handshake handshake = handshakeBegin(isLocal);
            HandshakeResult result = {kHandshakeGoesOn, kStatusSuccess, {}};
            for (const Bytes& bytes : row.taken) {
                ASSERT_EQ(result.outcome, kHandshakeGoesOn);
                ASSERT_EQ(handshake.wantedBytes, bytes.size());
                result = handshakeTake(&handshake, bytes.data());
                if (result.answer.size() == kGreetingBytes) {
                    const Bytes answer = words({0, 4, isLocal ? 1u : 0u});
                    EXPECT_EQ(Bytes(result.answer.begin(), result.answer.end()), answer);
                }
            }
            EXPECT_EQ(result.outcome, row.outcome);
            EXPECT_EQ(result.status, row.status);
            if (result.outcome == kHandshakeGoesOn) {
                EXPECT_EQ(handshakeReadCutOff(handshake), row.cutOff);
            }
            if (row.lastAnswer != 0) {
                ASSERT_EQ(result.answer.size(), kHelloBytes);
                EXPECT_EQ(loadBe32At(result.answer.data()), row.lastAnswer);
            }
        }
    }
}

// The terms are those of the last frame.
TEST(Handshake, KeepsTheAgreedTerms) {
    Handshake handshake = handshakeBegin(true);
    ASSERT_EQ(handshakeTake(&handshake, words({0, 4, 0}).data()).outcome, kHandshakeGoesOn);
    const Bytes agreed = frame(kHelloAgreed, kHelloVersion, 7);
    ASSERT_EQ(handshakeTake(&handshake, agreed.data()).outcome, kHandshakeAgreed);
    EXPECT_EQ(helloRead(handshake.frame).limitA, 7u);
}

}  // namespace
