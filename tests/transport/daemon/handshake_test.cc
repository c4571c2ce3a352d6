// What only the core of the opening shows; tests/pelmo/daemon_faults_test.cc has the others.

#include "lib/transport/daemon/handshake.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "lib/base/bytes.h"

namespace {

using Greeting = std::array<uint8_t, kGreetingBytes>;

Greeting greetingOf(uint32_t version, uint32_t last) {
    Greeting bytes = {};
    storeBe32At(&bytes[4], version);
    storeBe32At(&bytes[8], last);
    return bytes;
}

// The terms are those of the last frame; whether they can be kept is the queue's to say.
TEST(Handshake, TellsWhereTheClientIsAndKeepsTheAgreedTerms) {
    for (const bool isLocal : {false, true}) {
        Handshake handshake = handshakeBegin(isLocal);
        EXPECT_EQ(handshakeReadCutOff(handshake), kStatusDaemonNotConnected);
        const HandshakeResult greeted = handshakeTake(&handshake, greetingOf(3, 9).data());
        EXPECT_TRUE(std::ranges::equal(greeted.answer, greetingOf(4, isLocal ? 1 : 0)));
        EXPECT_EQ(handshakeReadCutOff(handshake), kStatusInitFailed);

        HelloFrame frame;
        ipqHelloInit(&frame);
        storeBe32At(frame.bytes, kHelloAgreed);
        storeBe32At(frame.bytes + 4, kHelloVersion + 1);
        storeBe32At(frame.bytes + 20, 7);
        EXPECT_EQ(handshakeTake(&handshake, frame.bytes).outcome, kHandshakeAgreed);
        EXPECT_EQ(helloRead(handshake.frame).limitA, 7u);
    }
}

}  // namespace
