#include "lib/containers/entry_ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "tests/support/fail_alloc.h"

namespace {

using Ring = std::unique_ptr<EntryRing, void (*)(EntryRing*)>;

Ring makeRing(uint32_t capacity) {
    return {EntryRing_Create(capacity), EntryRing_Destroy};
}

void* entry(size_t number) {
    return reinterpret_cast<void*>(number);
}

std::vector<void*> entriesOf(const Ring& ring) {
    std::vector<void*> entries;
    for (uint32_t place = 0; place < ring->count; ++place) {
        entries.push_back(ring->slots[EntryRing_Slot(ring.get(), place)]);
    }
    return entries;
}

TEST(EntryRing, WantsAPowerOfTwo) {
    for (const uint32_t capacity : {0u, 3u, 6u, 7u, 9u, 0x80000001u}) {
        EXPECT_EQ(EntryRing_Create(capacity), nullptr) << capacity;
    }
    for (const uint32_t capacity : {1u, 2u, 8u}) {
        const Ring ring = makeRing(capacity);
        ASSERT_NE(ring, nullptr);
        EXPECT_EQ(EntryRing_PopFront(ring.get()), nullptr);
        EXPECT_EQ(EntryRing_PopBack(ring.get()), nullptr);
    }
}

// With the entries lying from slot 0 on, wrapped behind pops, or wrapped ahead of them.
TEST(EntryRing, GrowsAtTheEighthAndKeepsTheOrder) {
    for (const size_t start : {0u, 1u, 4u, 6u, 7u}) {
        const Ring ring = makeRing(8);
        ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(100)));
        for (size_t i = 0; i < start; ++i) {
            ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(100)));
            EntryRing_PopFront(ring.get());
        }
        std::vector<void*> expected = {entry(100)};
        for (size_t i = 1; i < 7; ++i) {
            ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(i)));
            expected.push_back(entry(i));
        }
        EXPECT_EQ(ring->capacity, 8u) << start;
        ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(7)));
        expected.push_back(entry(7));
        EXPECT_EQ(ring->capacity, 16u) << start;
        EXPECT_EQ(entriesOf(ring), expected) << start;
    }
}

TEST(EntryRing, BeginsAtSlotZeroAfterTheLastEntryLeft) {
    using Leave = void* (*)(EntryRing*);
    const Leave leaves[] = {EntryRing_PopFront, EntryRing_PopBack,
                            [](EntryRing* ring) { return EntryRing_RemoveAt(ring, ring->head); }};
    for (const Leave leave : leaves) {
        const Ring ring = makeRing(8);
        ASSERT_TRUE(EntryRing_PushFront(ring.get(), entry(1)));
        ASSERT_TRUE(EntryRing_PushFront(ring.get(), entry(2)));
        EXPECT_EQ(EntryRing_PopBack(ring.get()), entry(1));
        EXPECT_EQ(ring->head, 7u);
        EXPECT_EQ(leave(ring.get()), entry(2));
        EXPECT_EQ(ring->count + ring->head + ring->tail, 0u);
    }
}

TEST(EntryRing, RefusesToRemoveFromFreeSlots) {
    const Ring ring = makeRing(4);
    ASSERT_TRUE(EntryRing_PushFront(ring.get(), entry(1)));
    ASSERT_TRUE(EntryRing_PushFront(ring.get(), entry(2)));
    for (const uint32_t slot : {1u, 2u, 4u, 7u, ~0u}) {
        EXPECT_EQ(EntryRing_RemoveAt(ring.get(), slot), nullptr) << slot;
    }
    EXPECT_EQ(entriesOf(ring), (std::vector<void*>{entry(2), entry(1)}));
}

TEST(EntryRing, IsAsItWasWhereGrowthFails) {
    const Ring ring = makeRing(4);
    std::vector<void*> expected;
    for (size_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(i)));
        expected.push_back(entry(i));
    }
    {
        const FailAlloc fail{.after = 0, .forGood = true};
        EXPECT_FALSE(EntryRing_PushBack(ring.get(), entry(4)));
        EXPECT_FALSE(EntryRing_PushFront(ring.get(), entry(4)));
    }
    EXPECT_EQ(entriesOf(ring), expected);
    eachAllocationFails([] {
        const Ring other = makeRing(4);
        EXPECT_EQ(other == nullptr, allocationsFailed() != 0);
    });
}

TEST(EntryRing, DoesAsADequeDoes) {
    for (const uint32_t capacity : {1u, 2u, 8u}) {
        std::mt19937 random(capacity);
        const Ring ring = makeRing(capacity);
        std::deque<void*> model;
        for (size_t step = 1; step < 20000; ++step) {
            // Long stretches of more pushes than pops, and the other way round.
            const bool push = random() % 100 < ((step / 500) % 2 == 0 ? 60u : 40u);
            const uint32_t kind = static_cast<uint32_t>(random() % 3);
            if (push && kind == 0) {
                ASSERT_TRUE(EntryRing_PushFront(ring.get(), entry(step)));
                model.push_front(entry(step));
            } else if (push) {
                ASSERT_TRUE(EntryRing_PushBack(ring.get(), entry(step)));
                model.push_back(entry(step));
            } else if (model.empty()) {
                ASSERT_EQ(EntryRing_PopFront(ring.get()), nullptr);
            } else if (kind == 0) {
                ASSERT_EQ(EntryRing_PopFront(ring.get()), model.front());
                model.pop_front();
            } else if (kind == 1) {
                ASSERT_EQ(EntryRing_PopBack(ring.get()), model.back());
                model.pop_back();
            } else {
                const auto place = static_cast<uint32_t>(random() % model.size());
                const uint32_t slot = EntryRing_Slot(ring.get(), place);
                ASSERT_EQ(EntryRing_RemoveAt(ring.get(), slot), model[place]);
                model.erase(model.begin() + place);
            }
            ASSERT_EQ(ring->count, model.size());
            if (step % 16 == 0) {
                ASSERT_EQ(entriesOf(ring), std::vector<void*>(model.begin(), model.end()));
            }
        }
    }
}

}  // namespace
