#include "lib/containers/probe_index.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

// Every byte and the length count, up to the longest subject and at every tail; nothing beyond is
// read, which the address sanitizer sees.
TEST(ProbeIndex, HashesEveryByteAndNoneBeyond) {
    for (size_t size = 0; size <= 255; ++size) {
        std::vector<uint8_t> bytes(size);
        bytes.shrink_to_fit();
        std::set<uint32_t> hashes = {probeHashBytes(bytes.data(), size)};
        for (uint8_t& byte : bytes) {
            byte = 1;
            hashes.insert(probeHashBytes(bytes.data(), size));
            byte = 0;
        }
        // One chance meeting among 256 numbers of 32 bits is no fault; a byte left out is seen at
        // all sizes.
        EXPECT_GE(hashes.size(), size) << size;
    }
}

TEST(ProbeIndex, HashesDifferentlyFromProcessToProcess) {
    const ProbeSeed drawn = probeSeed;
    std::set<uint32_t> keys, bytes;
    for (uint64_t seed = 1; seed <= 16; ++seed) {
        probeSeed = {seed * 0x9e3779b97f4a7c15u, seed * 0xd6e8feb86659fd93u | 1};
        keys.insert(probeHashKey(uint64_t{1} << 32));
        bytes.insert(probeHashBytes(reinterpret_cast<const uint8_t*>("subject"), 7));
    }
    probeSeed = drawn;
    EXPECT_EQ(keys.size() + bytes.size(), 32u);
}

}  // namespace
