#include "lib/containers/probe_index.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace {

struct Item {
    uint32_t hash;
    bool held;
};

uint32_t hashOf(const void* item) {
    return static_cast<const Item*>(item)->hash;
}

bool finds(const ProbeIndex& index, Item& item) {
    return probeFind(index, item.hash, [&](void* entry) { return entry == &item; }) == &item;
}

// Few hashes, all near the end of the slots: long runs that wrap around, where a removal that
// leaves a gap or moves one too far cuts entries off.
TEST(ProbeIndex, FindsAllThroughRunsThatWrap) {
    std::mt19937 random(1);
    std::vector<Item> items(64);
    for (Item& item : items) {
        item = {0xfffffffa + static_cast<uint32_t>(random() % 12), false};
    }
    ProbeIndex index = {};
    auto* beyond = reinterpret_cast<Item*>(uintptr_t{1} << kProbeAddressBits);
    EXPECT_FALSE(probeInsert(index, beyond, hashOf));
    for (int step = 0; step < 20000; ++step) {
        Item& item = items[random() % items.size()];
        if (item.held) {
            probeRemove(index, &item, hashOf);
        } else {
            ASSERT_TRUE(probeInsert(index, &item, hashOf));
        }
        item.held = !item.held;
        if (step % 16 != 0) continue;
        for (Item& each : items) {
            ASSERT_EQ(finds(index, each), each.held);
        }
    }
    EXPECT_GT(index.mask + 1, index.count);
    probeClear(index);
}

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
