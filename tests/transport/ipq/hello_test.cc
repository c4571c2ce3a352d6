#include "lib/transport/ipq/hello.h"

#include <gtest/gtest.h>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kMost = kHelloMostBytes;

HelloFrame frameOf(const HelloTerms& terms) {
    HelloFrame frame = {};
    storeBe32At(frame.bytes, terms.type);
    storeBe32At(frame.bytes + 4, terms.version);
    storeBe16At(frame.bytes + 12, terms.queueLimit);
    storeBe16At(frame.bytes + 14, terms.format);
    storeBe32At(frame.bytes + 20, terms.limitA);
    storeBe32At(frame.bytes + 24, terms.limitB);
    return frame;
}

TEST(Hello, AnswersByTheTerms) {
    struct Case {
        HelloTerms from, to;
    };
    const Case cases[] = {
        {{2, 2, 0, 1, kMost, kMost}, {3, 2, 0, 1, kMost, kMost}},
        {{2, 2, 7, 1, 100, 200}, {3, 2, 7, 1, 200, 100}},
        {{3, 2, 0, 1, kMost, kMost}, {1, 2, 0, 1, kMost, kMost}},
        {{3, 2, 0, 1, kMost - 1, 5}, {1, 2, 0, 1, 5, kMost - 1}},
        {{3, 2, 0, 1, kMost + 1, 5}, {3, 2, 0, 1, 5, kMost}},
        {{3, 2, 0, 1, 5, UINT32_MAX}, {3, 2, 0, 1, kMost, 5}},
        {{2, 1, 0, 1, 5, 6}, {0, 1, 0, 1, 5, 6}},
        {{3, 2, 0, 2, 5, 6}, {0, 2, 0, 2, 5, 6}},
        {{1, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
        {{4, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
    };
    for (const Case& c : cases) {
        HelloFrame frame = frameOf(c.from);
        ipqHelloNegotiate(&frame);
        EXPECT_EQ(std::memcmp(&frame, frameOf(c.to).bytes, kHelloBytes), 0)
            << c.from.type << " " << c.from.limitA << " " << c.from.limitB;
    }
}

}  // namespace
