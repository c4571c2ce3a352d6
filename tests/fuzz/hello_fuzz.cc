// Any bytes as a hello frame: the answer is of a type that answers, agrees to nothing above our own
// limits, and both sides come to an end within a few frames.

#include <cstring>

#include "lib/transport/ipq/hello.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    HelloFrame frame = {};
    std::memcpy(frame.bytes, data, size < kHelloBytes ? size : kHelloBytes);
    constexpr int kMostFrames = 4;
    for (int frames = 0;; ++frames) {
        require(frames < kMostFrames);
        ipqHelloNegotiate(&frame);
        const HelloTerms terms = helloRead(frame);
        if (terms.type == kHelloRefused) return 0;
        require(terms.type == kHelloAgreed || terms.type == kHelloCounter);
        require(terms.version == kHelloVersion && terms.format == kHelloFormat);
        require(terms.limitA <= kHelloMostBytes && terms.limitB <= kHelloMostBytes);
        if (terms.type == kHelloAgreed) return 0;
    }
}
