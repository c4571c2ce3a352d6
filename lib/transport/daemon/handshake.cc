#include "lib/transport/daemon/handshake.h"

#include <cstring>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kProtocolVersion = 4;
constexpr uint32_t kOldestProtocolVersion = 3;

HandshakeResult failed(pelmoStatus status) {
    return {.outcome = kHandshakeFailed, .status = status, .answer = {}};
}

HandshakeResult goesOn(std::span<const uint8_t> answer) {
    return {.outcome = kHandshakeGoesOn, .status = kStatusSuccess, .answer = answer};
}

HandshakeResult takeGreeting(Handshake* handshake, const uint8_t* bytes) {
    if (loadBe32At(bytes) != 0) return failed(kStatusDaemonNotConnected);
    const uint32_t version = loadBe32At(bytes + 4);
    if (version < kOldestProtocolVersion || version > kProtocolVersion) {
        return failed(kStatusWrongVersion);
    }
    storeBe32At(handshake->answer, 0);
    storeBe32At(handshake->answer + 4, kProtocolVersion);
    storeBe32At(handshake->answer + 8, handshake->isLocal ? 1 : 0);
    return goesOn(handshake->answer);
}

HandshakeResult takeFrame(Handshake* handshake, const uint8_t* bytes) {
    std::memcpy(handshake->frame.bytes, bytes, kHelloBytes);
    if (helloRead(handshake->frame).type == kHelloAgreed) {
        return {.outcome = kHandshakeAgreed, .status = kStatusSuccess, .answer = {}};
    }
    ipqHelloNegotiate(&handshake->frame);
    if (helloRead(handshake->frame).type == kHelloRefused) return failed(kStatusInitFailed);
    return goesOn(handshake->frame.bytes);
}

struct Step {
    size_t wantedBytes;
    pelmoStatus cutOff;  // what a read that ends early means
    HandshakeResult (*take)(Handshake* handshake, const uint8_t* bytes);
    HandshakeStep next;  // while the handshake goes on
};
constexpr Step kSteps[] = {
    {kGreetingBytes, kStatusDaemonNotConnected, takeGreeting, HandshakeStep::kFrames},
    {kHelloBytes, kStatusInitFailed, takeFrame, HandshakeStep::kFrames},
};

const Step& stepOf(HandshakeStep step) {
    return kSteps[static_cast<uint32_t>(step)];
}

}  // namespace

Handshake handshakeBegin(bool isLocal) {
    Handshake handshake = {};
    handshake.step = HandshakeStep::kGreeting;
    handshake.wantedBytes = stepOf(handshake.step).wantedBytes;
    handshake.isLocal = isLocal;
    return handshake;
}

HandshakeResult handshakeTake(Handshake* handshake, const uint8_t* bytes) {
    const Step& step = stepOf(handshake->step);
    const HandshakeResult result = step.take(handshake, bytes);
    if (result.outcome == kHandshakeGoesOn) {
        handshake->step = step.next;
        handshake->wantedBytes = stepOf(step.next).wantedBytes;
    }
    return result;
}

pelmoStatus handshakeReadCutOff(const Handshake& handshake) {
    return stepOf(handshake.step).cutOff;
}
