#include "lib/containers/entry_ring.h"

#include <algorithm>
#include <bit>
#include <deque>
#include <memory>
#include <random>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

std::deque<void*> entriesOf(const EntryRing* ring) {
    std::deque<void*> entries;
    for (uint32_t place = 0; place < ring->count; ++place) {
        entries.push_back(ring->slots[EntryRing_Slot(ring, place)]);
    }
    return entries;
}

TEST(EntryRing, WantsAPowerOfTwoAndMemory) {
    for (const uint32_t capacity : {0u, 3u, 6u, 0x80000001u}) {
        EXPECT_EQ(EntryRing_Create(capacity), nullptr) << capacity;
    }
    eachAllocationFails([] {
        EntryRing* ring = EntryRing_Create(4);
        EXPECT_EQ(ring == nullptr, allocationsFailed() != 0);
        EntryRing_Destroy(ring);
    });
}

// It grows with the entry that would fill it, or stays as it is where memory fails, and begins at
// slot 0 once the last one left.
TEST(EntryRing, DoesAsADequeDoes) {
    for (const uint32_t capacity : {1u, 2u, 8u}) {
        std::mt19937 random(capacity);
        const std::unique_ptr<EntryRing, void (*)(EntryRing*)> owned(EntryRing_Create(capacity),
                                                                     EntryRing_Destroy);
        EntryRing* ring = owned.get();
        std::deque<void*> model;
        size_t most = 0;
        for (size_t step = 1; step < 20000; ++step) {
            // Long stretches of more pushes than pops, and the other way round.
            const bool push = random() % 100 < ((step / 500) % 2 == 0 ? 60u : 40u);
            const uint32_t kind = static_cast<uint32_t>(random() % 3);
            if (push) {
                const FailAlloc fail{.after = random() % 2, .forGood = true};
                const bool pushed = kind == 0 ? EntryRing_PushFront(ring, number(step))
                                              : EntryRing_PushBack(ring, number(step));
                ASSERT_EQ(pushed, allocationsFailed() == 0);
                if (pushed) model.insert(kind == 0 ? model.begin() : model.end(), number(step));
            } else if (model.empty()) {
                ASSERT_EQ(EntryRing_PopFront(ring), nullptr);
            } else if (kind == 0) {
                ASSERT_EQ(EntryRing_PopFront(ring), model.front());
                model.pop_front();
            } else if (kind == 1) {
                ASSERT_EQ(EntryRing_PopBack(ring), model.back());
                model.pop_back();
            } else {
                const auto place = static_cast<uint32_t>(random() % model.size());
                ASSERT_EQ(EntryRing_RemoveAt(ring, EntryRing_Slot(ring, place)), model[place]);
                model.erase(model.begin() + place);
            }
            ASSERT_EQ(EntryRing_RemoveAt(ring, EntryRing_Slot(ring, ring->count)), nullptr);
            ASSERT_EQ(EntryRing_RemoveAt(ring, ring->capacity), nullptr);
            ASSERT_EQ(ring->count, model.size());
            most = std::max(most, model.size());
            ASSERT_EQ(ring->capacity, std::max<size_t>(capacity, std::bit_ceil(most + 1)));
            ASSERT_TRUE(!model.empty() || ring->head + ring->tail == 0);
            if (step % 16 == 0) {
                ASSERT_EQ(entriesOf(ring), model);
            }
        }
    }
}

}  // namespace
