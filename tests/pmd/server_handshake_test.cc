// The opening handshake in the daemon's role: what a client may answer, in whatever pieces, and
// what it may not.

#include "pmd/server_handshake.h"

#include <gtest/gtest.h>

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

Bytes bytesOf(const HelloFrame& made) {
    return Bytes(made.bytes, made.bytes + kHelloBytes);
}

Bytes frame(uint32_t type, uint32_t version = 2) {
    HelloFrame made;
    ipqHelloInit(&made);
    storeBe32At(made.bytes, type);
    storeBe32At(made.bytes + 4, version);
    storeBe32At(made.bytes + 20, kHelloMostBytes);
    return bytesOf(made);
}

// The types of the frames that the daemon sends, and how it ends.
std::string play(const std::vector<Bytes>& fromClient, size_t pieceBytes) {
    ServerHandshake handshake;
    const HandshakeBytes greeting = serverHandshakeBegin(&handshake);
    EXPECT_EQ(Bytes(greeting.begin(), greeting.end()), (Bytes{0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0}));
    std::string outcome;
    for (const Bytes& sent : fromClient) {
        for (size_t at = 0, size; at < sent.size(); at += size) {
            size =
                std::min<size_t>({serverHandshakeWants(&handshake), pieceBytes, sent.size() - at});
            HandshakeBytes out;
            const auto verdict =
                serverHandshakeTake(&handshake, std::span(sent).subspan(at, size), &out);
            if (!out.empty()) {
                EXPECT_EQ(out.size(), kHelloBytes);
                outcome += std::to_string(loadBe32At(out.data())) + " ";
            }
            if (verdict == HandshakeVerdict::kAgreed) return outcome + "agreed";
            if (verdict == HandshakeVerdict::kRefused) return outcome + handshake.fault;
        }
    }
    return outcome + "waits";
}

TEST(ServerHandshake, ComesToTermsOrRefuses) {
    // The client's own negotiation turns our offer into this.
    HelloFrame counter;
    ipqHelloInit(&counter);
    ipqHelloNegotiate(&counter);
    const Bytes good = answer(0, 4), agrees = bytesOf(counter), offers = frame(kHelloOffer);
    // The types of the daemon's frames.
    static_assert(kHelloRefused == 0 && kHelloAgreed == 1 && kHelloOffer == 2);
    const std::string agreed = "2 1 agreed";
    const std::string noTerms = "2 0 its terms for the queue can't be kept";
    std::vector<Bytes> endless(20, offers);
    endless[0] = good;
    const struct {
        const char* what;
        std::vector<Bytes> client;
        std::string outcome;
    } cases[] = {
        {"offers without end", endless, "2 3 3 3 3 3 3 3 3 it doesn't come to terms for the queue"},
        {"half an answer", {Bytes(good.begin(), good.begin() + 11)}, "waits"},
        {"a client of the library", {good, agrees}, agreed},
        {"of the older version", {answer(0, 3, 0), agrees}, agreed},
        {"agrees by itself", {good, frame(kHelloAgreed)}, agreed},
        {"offers first", {good, offers, agrees}, "2 3 1 agreed"},
        {"no greeting", {answer(1, 4)}, "its answer isn't one to the greeting"},
        {"version 5", {answer(0, 5)}, "its version is unknown"},
        {"refuses", {good, frame(kHelloRefused)}, noTerms},
        {"frame of version 3", {good, frame(kHelloCounter, 3)}, noTerms},
        {"unknown type", {good, frame(77)}, noTerms},
    };
    for (const auto& [what, client, outcome] : cases) {
        for (const size_t pieceBytes : {1, 5, 64})
            EXPECT_EQ(play(client, pieceBytes), outcome) << what;
    }
}

}  // namespace
