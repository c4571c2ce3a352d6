#include "lib/containers/i32map.h"

#include <map>
#include <memory>
#include <random>

#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"

namespace {

// The wrap of the generation is met on the way: it starts a few clears before one. What memory
// fails changes nothing.
TEST(I32Map, HoldsWhatWasSetSinceTheLastClear) {
    const OpenPools open(0);
    ItemPool *maps = nullptr, *nodes = nullptr, *buckets = nullptr;
    ASSERT_TRUE(i32mapCreatePools(&maps, &nodes, &buckets));
    for (const uint32_t size : {1u, 4u, 5u, 64u}) {
        SCOPED_TRACE(size);
        std::mt19937 random(size);
        const bool pooled = size != 5;
        const std::unique_ptr<I32Map, void (*)(I32Map*)> map(
            pooled ? i32mapCreate(size, maps, nodes, buckets) : i32mapCreate(size), i32mapDestroy);
        map->generation = UINT32_MAX - 5;
        std::map<uint32_t, uint32_t> model;
        for (uint32_t step = 0; step < 30000; ++step) {
            const uint32_t key = static_cast<uint32_t>(random() % 40) * 4;
            FailAlloc fail{.after = random() % 3};
            if (random() % 3 != 0) {
                const pelmoStatus status = i32mapSet(map.get(), key, step);
                ASSERT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
                if (status == kStatusSuccess) model[key] = step;
            } else {
                i32mapRemove(map.get(), key);
                model.erase(key);
            }
            if (random() % 100 == 0) {
                ASSERT_EQ(i32mapClear(map.get()), kStatusSuccess);  // whatever memory does
                model.clear();
            }
            const uint32_t sought = static_cast<uint32_t>(random() % 40) * 4;
            const auto known = model.find(sought);
            uint32_t value = 99;
            ASSERT_EQ(i32mapFind(map.get(), sought, &value),
                      known == model.end() ? kStatusNotFound : kStatusSuccess);
            ASSERT_EQ(value, known == model.end() ? 99 : known->second);
            ASSERT_EQ(map->count, model.size());
        }
    }
    for (ItemPool* pool : {maps, nodes, buckets}) {
        poolUnmake(pool);
    }
}

// At the wrap of the generation the nodes leave their buckets and serve any bucket from then on;
// otherwise they stay in their chains.
TEST(I32Map, ReusesItsNodesAfterAClear) {
    for (const auto& [generation, stride] : {std::pair{0u, 8u}, {UINT32_MAX, 1u}}) {
        const std::unique_ptr<I32Map, void (*)(I32Map*)> map(i32mapCreate(8), i32mapDestroy);
        map->generation = generation;
        const auto fill = [&](uint32_t first, uint32_t factor) {
            for (uint32_t key = first; key < first + 6; ++key) {
                ASSERT_EQ(i32mapSet(map.get(), key * factor, key), kStatusSuccess);
            }
        };
        fill(1, 8);  // one chain
        EXPECT_EQ(i32mapClear(map.get()), kStatusSuccess);
        const FailAlloc none{.after = 0, .forGood = true};
        fill(11, stride);
        EXPECT_EQ(allocationsCounted(), 0u);
    }
}

}  // namespace
