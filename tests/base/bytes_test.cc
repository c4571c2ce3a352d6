#include "lib/base/bytes.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A vector of its own, so that the address sanitizer sees a byte read too far.
TEST(Bytes, LoadNothingPastTheEnd) {
    const std::vector<uint8_t> bytes = {0x81, 2, 3, 4, 5, 6, 7, 8, 0x99};
    EXPECT_EQ(loadBe16({bytes}, 7), 0x0899);
    EXPECT_EQ(loadBe32({bytes}, 5), 0x06070899u);
    EXPECT_EQ(loadBe64({bytes}, 1), 0x0203040506070899u);
    for (const size_t beyond : {size_t{0}, size_t{1}, SIZE_MAX - 8}) {
        EXPECT_EQ(loadBe16({bytes}, 8 + beyond), 0);
        EXPECT_EQ(loadBe32({bytes}, 6 + beyond), 0u);
        EXPECT_EQ(loadBe64({bytes}, 2 + beyond), 0u);
    }
}

}  // namespace
