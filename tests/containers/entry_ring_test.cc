#include "lib/containers/entry_ring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

using Ring = std::unique_ptr<EntryRing, void (*)(EntryRing*)>;

Ring makeRing(uint32_t capacity) {
    return {EntryRing_Create(capacity), EntryRing_Destroy};
}

std::vector<void*> entriesOf(const Ring& ring) {
    std::vector<void*> entries;
    for (uint32_t place = 0; place < ring->count; ++place) {
        entries.push_back(ring->slots[EntryRing_Slot(ring.get(), place)]);
    }
    return entries;
}

TEST(EntryRing, WantsAPowerOfTwo) {
    for (const uint32_t capacity : {0u, 3u, 6u, 0x80000001u}) {
        EXPECT_EQ(EntryRing_Create(capacity), nullptr) << capacity;
    }
}

TEST(EntryRing, RefusesToRemoveFromFreeSlots) {
    const Ring ring = makeRing(4);
    ASSERT_TRUE(EntryRing_PushFront(ring.get(), number(1)));
    ASSERT_TRUE(EntryRing_PushFront(ring.get(), number(2)));
    for (const uint32_t slot : {1u, 2u, 4u, 7u, ~0u}) {
        EXPECT_EQ(EntryRing_RemoveAt(ring.get(), slot), nullptr) << slot;
    }
    EXPECT_EQ(entriesOf(ring), (std::vector<void*>{number(2), number(1)}));
}

TEST(EntryRing, IsAsItWasWhereGrowthFails) {
    const Ring ring = makeRing(4);
    std::vector<void*> expected;
    for (size_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(EntryRing_PushBack(ring.get(), number(i)));
        expected.push_back(number(i));
    }
    {
        const FailAlloc fail{.after = 0, .forGood = true};
        EXPECT_FALSE(EntryRing_PushBack(ring.get(), number(4)));
        EXPECT_FALSE(EntryRing_PushFront(ring.get(), number(4)));
    }
    EXPECT_EQ(entriesOf(ring), expected);
    eachAllocationFails([] {
        const Ring other = makeRing(4);
        EXPECT_EQ(other == nullptr, allocationsFailed() != 0);
    });
}

// It grows with the entry that would fill it, and begins at slot 0 once the last one left.
TEST(EntryRing, DoesAsADequeDoes) {
    for (const uint32_t capacity : {1u, 2u, 8u}) {
        std::mt19937 random(capacity);
        const Ring ring = makeRing(capacity);
        std::deque<void*> model;
        size_t most = 0;
        for (size_t step = 1; step < 20000; ++step) {
            // Long stretches of more pushes than pops, and the other way round.
            const bool push = random() % 100 < ((step / 500) % 2 == 0 ? 60u : 40u);
            const uint32_t kind = static_cast<uint32_t>(random() % 3);
            if (push && kind == 0) {
                ASSERT_TRUE(EntryRing_PushFront(ring.get(), number(step)));
                model.push_front(number(step));
            } else if (push) {
                ASSERT_TRUE(EntryRing_PushBack(ring.get(), number(step)));
                model.push_back(number(step));
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
            most = std::max(most, model.size());
            ASSERT_EQ(ring->capacity, std::max<size_t>(capacity, std::bit_ceil(most + 1)));
            ASSERT_TRUE(!model.empty() || ring->head + ring->tail == 0);
            if (step % 16 == 0) {
                ASSERT_EQ(entriesOf(ring), std::vector<void*>(model.begin(), model.end()));
            }
        }
    }
}

}  // namespace
