#include "lib/base/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

// A vector of its own, so that the address sanitizer sees a byte read too far.
TEST(Bytes, LoadsNothingPastTheEnd) {
    const std::vector<uint8_t> bytes = {0x81, 2, 3, 4, 5, 6, 7, 8, 0x99};
    EXPECT_EQ(loadBe16({bytes}, 7), 0x0899);
    EXPECT_EQ(loadBe32({bytes}, 0), 0x81020304u);
    EXPECT_EQ(loadBe32({bytes}, 5), 0x06070899u);
    EXPECT_EQ(loadBe64({bytes}, 0), 0x8102030405060708u);
    EXPECT_EQ(loadBe64({bytes}, 1), 0x0203040506070899u);
    for (const size_t beyond : {size_t{0}, size_t{1}, SIZE_MAX - 8}) {
        EXPECT_EQ(loadBe16({bytes}, 8 + beyond), 0);
        EXPECT_EQ(loadBe32({bytes}, 6 + beyond), 0u);
        EXPECT_EQ(loadBe64({bytes}, 2 + beyond), 0u);
    }
}

TEST(Bytes, StoresWhatLoadsGiveBackAndNoMore) {
    std::array<uint8_t, 16> bytes{};
    storeBe16At(&bytes[1], 0x8102);
    storeBe32At(&bytes[3], 0x83040506);
    storeBe64At(&bytes[7], 0x8708090a0b0c0d0e);
    const std::array<uint8_t, 16> expected = {0, 0x81, 2,  0x83, 4,  5,  6,  0x87,
                                              8, 9,    10, 11,   12, 13, 14, 0};
    EXPECT_EQ(bytes, expected);
    storeNet32At(&bytes[3], loadNet32At(&bytes[7]));
    EXPECT_EQ(loadBe32At(&bytes[3]), 0x8708090au);
    storeNet16At(&bytes[3], loadNet16At(&bytes[13]));
    EXPECT_EQ(loadBe16At(&bytes[3]), 0x0d0e);
    EXPECT_EQ(loadBe64At(&bytes[7]), 0x8708090a0b0c0d0eu);
}

}  // namespace
