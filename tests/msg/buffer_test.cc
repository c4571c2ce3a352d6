#include "lib/msg/buffer.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"
#include "tests/support/test.h"

namespace {

constexpr const char *kHeap = "heap", *kPools = "pools", *kCache = "pools with a cache";

using Held = std::unique_ptr<Buffer, void (*)(Buffer*)>;

Held hold(Buffer* buffer) {
    return {buffer, bufferRelease};
}

// Each byte tells its place.
void fill(const Held& buffer) {
    for (uint32_t i = 0; i < buffer->size; ++i) {
        buffer->data[i] = static_cast<uint8_t>(i * 7 + 1);
    }
}

bool isFilled(const Held& buffer, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (buffer->data[i] != static_cast<uint8_t>(i * 7 + 1)) return false;
    }
    return true;
}

bool isInline(const Held& buffer) {
    return buffer->data == reinterpret_cast<const uint8_t*>(buffer.get() + 1);
}

// Records come from the heap, or from pools with or without a cache; private pools have 20 records
// with 100 inline bytes.
struct Buffers : testing::TestWithParam<const char*> {
    Buffers() {
        bufferCountBytes();
        if (GetParam() == kHeap) return;
        pools.emplace(GetParam() == kCache ? 1 : 0);
        EXPECT_EQ(bufferPoolCreate(), kStatusSuccess);
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

TEST_P(Buffers, HaveThirtyTwoBytesOrMoreOrNone) {
    for (const uint32_t asked : {0u, 1u, 31u, 32u, 33u, 100u, 101u, 70000u}) {
        const uint32_t given = asked == 0 ? 0 : std::max(asked, 32u);
        for (const Held& buffer :
             {hold(bufferCreate(asked)), hold(bufferCreateFrom(privatePool, asked))}) {
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(buffer->size, given);
            EXPECT_EQ(buffer->data == nullptr, given == 0);
            EXPECT_EQ(buffer->refCount.load(), 1u);
            fill(buffer);
            EXPECT_TRUE(isFilled(buffer, given));
        }
    }
}

TEST_P(Buffers, LieInlineWhereTheSizeIsTheirPools) {
    if (privatePool == nullptr) return;
    const uint32_t before = availableIn(privatePool);
    {
        const FailAlloc count{.after = kNeverFails};
        const Held warm = hold(bufferCreateFrom(privatePool, 100));
        const size_t lists = allocationsCounted();
        const Held buffer = hold(bufferCreateFrom(privatePool, 100));
        EXPECT_EQ(allocationsCounted(), lists);
        EXPECT_TRUE(isInline(buffer));
        EXPECT_EQ(buffer->pool, privatePool);
    }
    EXPECT_NE(hold(bufferCreateFrom(privatePool, 99))->pool, privatePool);
    poolThreadLeave();
    EXPECT_EQ(availableIn(privatePool), before);
}

TEST_P(Buffers, GrowAndShrinkWithTheirBytes) {
    for (const uint32_t size : {0u, 32u, 100u}) {
        EXPECT_EQ(bufferBytesCounted(), 0u);
        for (const int32_t first : {50, -20}) {
            if (size == 0 && first < 0) continue;
            const Held buffer = hold(bufferCreateFrom(privatePool, size));
            fill(buffer);
            uint32_t expected = size;
            for (const int32_t change : {first, 10000, -9990}) {
                ASSERT_EQ(bufferGrow(buffer.get(), change), kStatusSuccess);
                const uint32_t before = expected;
                expected += static_cast<uint32_t>(change);
                EXPECT_EQ(buffer->size, expected);
                EXPECT_EQ(bufferBytesCounted(), expected);
                EXPECT_FALSE(isInline(buffer));
                EXPECT_TRUE(isFilled(buffer, std::min(before, expected)));
                fill(buffer);
            }
            const auto all = -static_cast<int32_t>(expected);
            EXPECT_EQ(bufferGrow(buffer.get(), all - 1), kStatusNoMemory);
            EXPECT_EQ(buffer->size, expected);
            ASSERT_EQ(bufferGrow(buffer.get(), all), kStatusSuccess);
            ASSERT_EQ(bufferGrow(buffer.get(), 40), kStatusSuccess);
            fill(buffer);
        }
    }
}

TEST_P(Buffers, KeepASmallBlockForTheNext) {
    if (privatePool == nullptr) return;
    const FailAlloc count{.after = kNeverFails};
    hold(bufferCreate(200));
    const size_t before = allocationsCounted();
    const Held buffer = hold(bufferCreate(64));
    fill(buffer);
    ASSERT_EQ(bufferGrow(buffer.get(), 192), kStatusSuccess);
    EXPECT_TRUE(isFilled(buffer, 64));
    EXPECT_EQ(allocationsCounted(), before);
    ASSERT_EQ(bufferGrow(buffer.get(), 1), kStatusSuccess);
    EXPECT_EQ(allocationsCounted(), before + 1);
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

TEST(BufferPools, NeedTheManager) {
    ChunkPool* pool = nullptr;
    EXPECT_EQ(bufferPoolCreate(), kStatusNoMemory);
    EXPECT_EQ(bufferPrivatePool(&pool, 10, 10), kStatusNoMemory);
    const OpenPools open(1);
    EXPECT_EQ(bufferPrivatePool(nullptr, 10, 10), kStatusInvalidArgument);
    EXPECT_EQ(bufferPrivatePool(&pool, 0, 10), kStatusNoMemory);
    EXPECT_EQ(bufferPrivatePool(&pool, 1, UINT32_MAX - 16), kStatusNoMemory);
    EXPECT_EQ(pool, nullptr);
}

}  // namespace
