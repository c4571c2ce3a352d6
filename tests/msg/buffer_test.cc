#include "lib/msg/buffer.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "tests/support/pool_manager.h"
#include "tests/support/test.h"

namespace {

constexpr const char *kHeap = "heap", *kPools = "pools", *kCache = "pools with a cache";

// Each byte shows its place.
void fill(Buffer* buffer) {
    for (uint32_t i = 0; i < buffer->size; ++i) {
        buffer->data[i] = static_cast<uint8_t>(i * 7 + 1);
    }
}

bool isFilled(Buffer* buffer, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (buffer->data[i] != static_cast<uint8_t>(i * 7 + 1)) return false;
    }
    return true;
}

// Records come from the heap, or from pools with or without a cache; private pools have 20 records
// with 100 inline bytes.
struct Buffers : testing::TestWithParam<const char*> {
    Buffers() {
        bufferCountBytes();
        if (GetParam() == kHeap) return;
        pools.emplace(GetParam() == kCache ? 1 : 0);
        EXPECT_EQ(bufferPoolCreate(), kStatusSuccess);
        EXPECT_EQ(bufferPrivatePool(&privatePool, 1, UINT32_MAX - 16), kStatusNoMemory);
        EXPECT_EQ(bufferPrivatePool(&privatePool, 20, 100), kStatusSuccess);
    }
    ~Buffers() override {
        poolDestroy(privatePool, __FILE__, __LINE__);
        bufferPoolDestroy();
    }

    std::optional<OpenPools> pools;
    ChunkPool* privatePool = nullptr;
};

INSTANTIATE_TEST_SUITE_P(From, Buffers, testing::Values(kHeap, kPools, kCache));

TEST_P(Buffers, GrowAndShrinkWithTheirBytes) {
    for (const uint32_t asked : {0u, 1u, 31u, 32u, 33u, 100u, 101u, 70000u}) {
        EXPECT_EQ(bufferBytesCounted(), 0u);
        uint32_t size = asked == 0 ? 0 : std::max(asked, 32u);
        Buffer* buffer = bufferCreateFrom(privatePool, asked);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->data == nullptr, size == 0);
        EXPECT_EQ(buffer->size, size);
        fill(buffer);
        for (const int32_t change : {50, -20, 10000, -9990}) {
            ASSERT_EQ(bufferGrow(buffer, change), kStatusSuccess);
            const uint32_t before = size;
            size += static_cast<uint32_t>(change);
            EXPECT_EQ(buffer->size, size);
            EXPECT_EQ(bufferBytesCounted(), size);
            EXPECT_TRUE(isFilled(buffer, std::min(before, size)));
            fill(buffer);
        }
        const auto all = -static_cast<int32_t>(size);
        EXPECT_EQ(bufferGrow(buffer, all - 1), kStatusNoMemory);
        EXPECT_EQ(buffer->size, size);
        ASSERT_EQ(bufferGrow(buffer, all), kStatusSuccess);
        ASSERT_EQ(bufferGrow(buffer, 40), kStatusSuccess);
        fill(buffer);
        bufferRelease(buffer);
    }
}

// Each buffer has two holders, who let go of it at about the same time.
TEST_P(Buffers, GoWithTheLastHolderOnWhateverThread) {
    std::vector<Buffer*> shared(2000);
    for (Buffer*& buffer : shared) {
        buffer = bufferCreateFrom(privatePool, 100);
        bufferRetain(buffer);
    }
    race(2, 1, [&shared](int, int) {
        poolThreadEnter();
        for (Buffer* buffer : shared) {
            bufferRelease(buffer);
        }
    });
    poolThreadLeave();
    if (privatePool == nullptr) return;
    EXPECT_EQ(availableIn(privatePool), chunksIn(privatePool));
}

}  // namespace
