#include "lib/msg/buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"

namespace {

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

// Where records come from, and private pools of 20 records with 100 inline bytes.
enum class Source { kHeap, kPool, kPoolWithCache };

struct Buffers : testing::TestWithParam<Source> {
    Buffers() {
        if (GetParam() == Source::kHeap) return;
        pools.emplace(GetParam() == Source::kPoolWithCache ? 1 : 0);
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

INSTANTIATE_TEST_SUITE_P(Sources,
                         Buffers,
                         testing::Values(Source::kHeap, Source::kPool, Source::kPoolWithCache));

TEST_P(Buffers, HaveThirtyTwoBytesOrMoreOrNone) {
    for (const auto& [asked, given] : std::vector<std::pair<uint32_t, uint32_t>>{{0, 0},
                                                                                 {1, 32},
                                                                                 {31, 32},
                                                                                 {32, 32},
                                                                                 {33, 33},
                                                                                 {100, 100},
                                                                                 {101, 101},
                                                                                 {70000, 70000}}) {
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

TEST_P(Buffers, KeepFewInlineBytesWithinTheChunk) {
    if (privatePool == nullptr) return;
    ChunkPool* few = nullptr;
    ASSERT_EQ(bufferPrivatePool(&few, 10, 8), kStatusSuccess);
    {
        const Held buffer = hold(bufferCreateFrom(few, 8));
        EXPECT_TRUE(isInline(buffer));
        EXPECT_EQ(buffer->size, 8u);
    }
    poolDestroy(few, __FILE__, __LINE__);
}

TEST_P(Buffers, GrowAndShrinkWithTheirBytes) {
    for (const uint32_t size : {0u, 32u, 100u}) {
        const Held buffer = hold(bufferCreateFrom(privatePool, size));
        fill(buffer);
        ASSERT_EQ(bufferGrow(buffer.get(), 50), kStatusSuccess);
        EXPECT_EQ(buffer->size, size + 50);
        EXPECT_FALSE(isInline(buffer));
        EXPECT_TRUE(isFilled(buffer, size));
        fill(buffer);
        ASSERT_EQ(bufferGrow(buffer.get(), 10000), kStatusSuccess);
        EXPECT_TRUE(isFilled(buffer, size + 50));
        ASSERT_EQ(bufferGrow(buffer.get(), -10040), kStatusSuccess);
        EXPECT_EQ(buffer->size, size + 10);
        EXPECT_TRUE(isFilled(buffer, size + 10));

        EXPECT_EQ(bufferGrow(buffer.get(), -static_cast<int32_t>(size) - 11), kStatusNoMemory);
        EXPECT_EQ(buffer->size, size + 10);
        ASSERT_EQ(bufferGrow(buffer.get(), -static_cast<int32_t>(size) - 10), kStatusSuccess);
        EXPECT_EQ(buffer->size, 0u);
        ASSERT_EQ(bufferGrow(buffer.get(), 40), kStatusSuccess);
        fill(buffer);
    }
}

TEST_P(Buffers, ShrinkInlineBytesIntoTheHeap) {
    const Held buffer = hold(bufferCreateFrom(privatePool, 100));
    fill(buffer);
    ASSERT_EQ(bufferGrow(buffer.get(), -60), kStatusSuccess);
    EXPECT_EQ(buffer->size, 40u);
    EXPECT_FALSE(isInline(buffer));
    EXPECT_TRUE(isFilled(buffer, 40));
}

TEST_P(Buffers, CloneAStretch) {
    const Held source = hold(bufferCreate(64));
    fill(source);
    const Held copy = hold(bufferClone(source.get(), 10, 200, 54));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->size, 200u);
    EXPECT_EQ(std::memcmp(copy->data, source->data + 10, 54), 0);
    EXPECT_EQ(hold(bufferClone(source.get(), 64, 0, 0))->size, 0u);
}

TEST_P(Buffers, LeaveNothingHalfMade) {
    eachAllocationFails([&] {
        for (const uint32_t size : {0u, 40u, 100u}) {
            const Held buffer = hold(bufferCreateFrom(privatePool, size));
            if (buffer == nullptr) continue;
            fill(buffer);
            const Held copy = hold(bufferClone(buffer.get(), 0, size, size));
            EXPECT_TRUE(copy != nullptr || allocationsFailed() != 0);
            if (bufferGrow(buffer.get(), 20) == kStatusSuccess) {
                EXPECT_EQ(buffer->size, size + 20);
            } else {
                EXPECT_EQ(buffer->size, size);
            }
            EXPECT_TRUE(isFilled(buffer, size));
        }
    });
}

TEST_P(Buffers, GoWithTheLastHolderOnWhateverThread) {
    constexpr int kRounds = 2000;
    const uint32_t before = privatePool != nullptr ? availableIn(privatePool) : 0;
    poolThreadRun(
        [](void* argument) {
            auto* pool = static_cast<ChunkPool*>(argument);
            std::atomic<Buffer*> shared = nullptr;
            std::atomic<int> wrong = 0;
            std::thread other([&] {
                poolThreadEnter();
                for (int i = 0; i < kRounds; ++i) {
                    Buffer* buffer = nullptr;
                    while ((buffer = shared.exchange(nullptr)) == nullptr) {
                        std::this_thread::yield();
                    }
                    wrong += buffer->data[99] != static_cast<uint8_t>(i);
                    bufferRelease(buffer);
                }
            });
            for (int i = 0; i < kRounds; ++i) {
                Buffer* buffer = bufferCreateFrom(pool, 100);
                buffer->data[99] = static_cast<uint8_t>(i);
                bufferRetain(buffer);
                Buffer* none = nullptr;
                while (!shared.compare_exchange_weak(none, buffer)) {
                    none = nullptr;
                    std::this_thread::yield();
                }
                bufferRelease(buffer);
            }
            other.join();
            EXPECT_EQ(wrong.load(), 0);
        },
        privatePool);
    if (privatePool != nullptr) {
        EXPECT_EQ(availableIn(privatePool), chunksIn(privatePool));
        EXPECT_GE(availableIn(privatePool), before);
    }
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
