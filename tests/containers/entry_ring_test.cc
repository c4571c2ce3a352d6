#include "lib/containers/entry_ring.h"

#include <deque>
#include <random>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

// It grows with the entry that would fill it, or stays as it is where memory fails.
TEST(EntryRing, DoesAsADequeDoes) {
    std::mt19937 random(1);
    EntryRing* ring = EntryRing_Create(1);
    std::deque<void*> model;
    for (size_t step = 1; step < 20000; ++step) {
        // Long stretches of more pushes than pops, and the other way round.
        const bool push = random() % 100 < ((step / 500) % 2 == 0 ? 60u : 40u);
        const bool front = random() % 2 == 0;
        if (push) {
            const FailAlloc fail{.after = random() % 2, .forGood = true};
            const bool pushed = front ? EntryRing_PushFront(ring, number(step))
                                      : EntryRing_PushBack(ring, number(step));
            ASSERT_EQ(pushed, allocationsFailed() == 0);
            if (pushed) model.insert(front ? model.begin() : model.end(), number(step));
        } else if (!model.empty()) {
            const auto place = static_cast<uint32_t>(front ? 0 : random() % model.size());
            ASSERT_EQ(EntryRing_RemoveAt(ring, EntryRing_Slot(ring, place)), model[place]);
            model.erase(model.begin() + place);
        }
        ASSERT_EQ(ring->count, model.size());
        for (uint32_t place = 0; step % 16 == 0 && place < ring->count; ++place) {
            ASSERT_EQ(ring->slots[EntryRing_Slot(ring, place)], model[place]);
        }
    }
    EntryRing_Destroy(ring);
}

}  // namespace
