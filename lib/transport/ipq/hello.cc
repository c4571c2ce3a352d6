#include "lib/transport/ipq/hello.h"

#include "lib/base/bytes.h"

namespace {

// Offsets of the fields in a frame.
constexpr size_t kTypeAt = 0;
constexpr size_t kVersionAt = 4;
constexpr size_t kQueueLimitAt = 12;
constexpr size_t kFormatAt = 14;
constexpr size_t kLimitAAt = 20;
constexpr size_t kLimitBAt = 24;

// Our terms are the peer's limits, each for the other direction, and never above the most that we
// keep. Returns whether the peer has to hear of them.
bool setTerms(HelloFrame* frame, const HelloTerms& offer) {
    const bool isAbove = offer.limitA > kHelloMostBytes || offer.limitB > kHelloMostBytes;
    const auto within = [](uint32_t limit) {
        return limit < kHelloMostBytes ? limit : kHelloMostBytes;
    };
    storeBe32At(frame->bytes + kLimitAAt, within(offer.limitB));
    storeBe32At(frame->bytes + kLimitBAt, within(offer.limitA));
    return isAbove || offer.type == kHelloOffer;
}

HelloType answerTo(HelloFrame* frame) {
    const HelloTerms offer = helloRead(*frame);
    if (offer.type != kHelloOffer && offer.type != kHelloCounter) return kHelloRefused;
    if (offer.version != kHelloVersion || offer.format != kHelloFormat) return kHelloRefused;
    return setTerms(frame, offer) ? kHelloCounter : kHelloAgreed;
}

}  // namespace

HelloTerms helloRead(const HelloFrame& frame) {
    return {.type = loadBe32At(frame.bytes + kTypeAt),
            .version = loadBe32At(frame.bytes + kVersionAt),
            .queueLimit = loadBe16At(frame.bytes + kQueueLimitAt),
            .format = loadBe16At(frame.bytes + kFormatAt),
            .limitA = loadBe32At(frame.bytes + kLimitAAt),
            .limitB = loadBe32At(frame.bytes + kLimitBAt)};
}

void ipqHelloInit(HelloFrame* frame) {
    *frame = {};
    storeBe32At(frame->bytes + kTypeAt, kHelloOffer);
    storeBe32At(frame->bytes + kVersionAt, kHelloVersion);
    storeBe16At(frame->bytes + kFormatAt, kHelloFormat);
    storeBe32At(frame->bytes + kLimitAAt, kHelloMostBytes);
    storeBe32At(frame->bytes + kLimitBAt, kHelloMostBytes);
}

void ipqHelloNegotiate(HelloFrame* frame) {
    storeBe32At(frame->bytes + kTypeAt, answerTo(frame));
}
