// The opening handshake in the daemon's role: what a client may answer, in whatever pieces, and
// what it may not.

#include "pmd/server_handshake.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lib/base/bytes.h"
#include "tests/support/message_values.h"

namespace {

Bytes answer(uint32_t first, uint32_t version, uint32_t local = 1) {
    Bytes bytes(12);
    storeBe32At(bytes.data(), first);
    storeBe32At(bytes.data() + 4, version);
    storeBe32At(bytes.data() + 8, local);
    return bytes;
}

HelloFrame frame(uint32_t type, uint32_t limitA = kHelloMostBytes, uint32_t version = 2) {
    HelloFrame made;
    ipqHelloInit(&made);
    storeBe32At(made.bytes, type);
    storeBe32At(made.bytes + 4, version);
    storeBe32At(made.bytes + 20, limitA);
    return made;
}

Bytes bytesOf(const HelloFrame& made) {
    return Bytes(made.bytes, made.bytes + kHelloBytes);
}

// What the daemon sends, by types of its frames, and how it ends.
struct Outcome {
    std::vector<uint32_t> types;
    std::string end = "waits";

    bool operator==(const Outcome&) const = default;
};

Outcome play(const std::vector<Bytes>& fromClient, size_t pieceBytes) {
    ServerHandshake handshake;
    const HandshakeBytes greeting = serverHandshakeBegin(&handshake);
    EXPECT_EQ(Bytes(greeting.begin(), greeting.end()), (Bytes{0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0}));
    Outcome outcome;
    for (const Bytes& sent : fromClient) {
        for (size_t at = 0; at < sent.size();) {
            const size_t wanted = std::min<size_t>(serverHandshakeWants(&handshake), pieceBytes);
            const size_t size = std::min(wanted, sent.size() - at);
            HandshakeBytes out;
            const auto verdict =
                serverHandshakeTake(&handshake, std::span(sent).subspan(at, size), &out);
            at += size;
            if (!out.empty()) {
                EXPECT_EQ(out.size(), kHelloBytes);
                outcome.types.push_back(loadBe32At(out.data()));
            }
            if (verdict == HandshakeVerdict::kGoOn) continue;
            const bool agreed = verdict == HandshakeVerdict::kAgreed;
            outcome.end = agreed ? "agreed" : handshake.fault;
            return outcome;
        }
    }
    return outcome;
}

TEST(ServerHandshake, ComesToTermsOrRefuses) {
    // The client's own negotiation turns our offer into this.
    HelloFrame counter;
    ipqHelloInit(&counter);
    ipqHelloNegotiate(&counter);
    const Bytes good = answer(0, 4);
    const Bytes agrees = bytesOf(counter);
    struct Case {
        const char* what;
        std::vector<Bytes> client;
        Outcome outcome;
    };
    const std::string unknown = "its version is unknown";
    const std::string noTerms = "its terms for the queue can't be kept";
    std::vector<Bytes> offers(20, bytesOf(frame(kHelloOffer)));
    offers.insert(offers.begin(), good);
    std::vector<uint32_t> counters(9, kHelloCounter);
    counters[0] = kHelloOffer;
    const Case cases[] = {
        {"offers without end", offers, {counters, "it doesn't come to terms for the queue"}},
        {"silent", {}, {}},
        {"half an answer", {Bytes(good.begin(), good.begin() + 11)}, {}},
        {"a client of the library", {good, agrees}, {{kHelloOffer, kHelloAgreed}, "agreed"}},
        {"of the older version",
         {answer(0, 3, 0), agrees},
         {{kHelloOffer, kHelloAgreed}, "agreed"}},
        {"agrees by itself",
         {good, bytesOf(frame(kHelloAgreed))},
         {{kHelloOffer, kHelloAgreed}, "agreed"}},
        {"offers first",
         {good, bytesOf(frame(kHelloOffer)), agrees},
         {{kHelloOffer, kHelloCounter, kHelloAgreed}, "agreed"}},
        {"no greeting", {answer(1, 4)}, {{}, "its answer isn't one to the greeting"}},
        {"version 5", {answer(0, 5)}, {{}, unknown}},
        {"refuses", {good, bytesOf(frame(kHelloRefused))}, {{kHelloOffer, kHelloRefused}, noTerms}},
        {"frame of version 3",
         {good, bytesOf(frame(kHelloCounter, kHelloMostBytes, 3))},
         {{kHelloOffer, kHelloRefused}, noTerms}},
        {"unknown type", {good, bytesOf(frame(77))}, {{kHelloOffer, kHelloRefused}, noTerms}},
    };
    for (const Case& c : cases) {
        for (const size_t pieceBytes : {size_t{1}, size_t{5}, size_t{64}}) {
            EXPECT_EQ(play(c.client, pieceBytes), c.outcome) << c.what;
        }
    }
}

}  // namespace
