#include "pmd/server_handshake.h"

#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kGreetingBytes = 12;
constexpr uint32_t kVersionOffset = 4;
constexpr uint32_t kVersion = 4;
constexpr uint32_t kOldestVersion = 3;

// Two sides with sound terms agree at the second frame.
constexpr uint8_t kMostRounds = 8;

constexpr uint8_t kGreeting[kGreetingBytes] = {0, 0, 0, 0, 0, 0, 0, kVersion};

HandshakeVerdict refuse(ServerHandshake* handshake, const char* fault) {
    handshake->fault = fault;
    return HandshakeVerdict::kRefused;
}

HandshakeBytes frameBytes(const ServerHandshake* handshake) {
    return handshake->frame.bytes;
}

HandshakeVerdict takeAnswer(ServerHandshake* handshake, HandshakeBytes* out) {
    const uint8_t* bytes = handshake->frame.bytes;
    const uint32_t version = loadBe32At(bytes + kVersionOffset);
    if (loadBe32At(bytes) != 0) return refuse(handshake, "its answer isn't one to the greeting");
    if (version < kOldestVersion || version > kVersion) {
        return refuse(handshake, "its version is unknown");
    }
    handshake->answered = true;
    ipqHelloInit(&handshake->frame);
    *out = frameBytes(handshake);
    return HandshakeVerdict::kGoOn;
}

// A client that agrees to our terms by itself still waits for our last word.
HandshakeVerdict takeFrame(ServerHandshake* handshake, HandshakeBytes* out) {
    if (helloRead(handshake->frame).type != kHelloAgreed) ipqHelloNegotiate(&handshake->frame);
    *out = frameBytes(handshake);
    switch (helloRead(handshake->frame).type) {
        case kHelloAgreed:
            return HandshakeVerdict::kAgreed;
        case kHelloRefused:
            return refuse(handshake, "its terms for the queue can't be kept");
        default:
            if (++handshake->rounds < kMostRounds) return HandshakeVerdict::kGoOn;
            return refuse(handshake, "it doesn't come to terms for the queue");
    }
}

}  // namespace

HandshakeBytes serverHandshakeBegin(ServerHandshake* handshake) {
    *handshake = {};
    return kGreeting;
}

uint32_t serverHandshakeWants(const ServerHandshake* handshake) {
    const auto whole = handshake->answered ? uint32_t{kHelloBytes} : kGreetingBytes;
    return whole - handshake->have;
}

HandshakeVerdict serverHandshakeTake(ServerHandshake* handshake,
                                     HandshakeBytes bytes,
                                     HandshakeBytes* out) {
    *out = {};
    const uint32_t wanted = serverHandshakeWants(handshake);
    const auto count = static_cast<uint32_t>(bytes.size());
    std::memcpy(handshake->frame.bytes + handshake->have, bytes.data(), count);
    handshake->have = static_cast<uint8_t>(handshake->have + count);
    if (count < wanted) return HandshakeVerdict::kGoOn;
    handshake->have = 0;
    return handshake->answered ? takeFrame(handshake, out) : takeAnswer(handshake, out);
}
