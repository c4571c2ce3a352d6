#include "lib/containers/i32map.h"

#include <map>
#include <memory>
#include <random>

#include "tests/support/fail_alloc.h"
#include "tests/support/toy_pool.h"

namespace {

using Map = std::unique_ptr<I32Map, decltype(&i32mapDestroy)>;

Map make(uint32_t buckets) {
    return Map(i32mapCreate(buckets), i32mapDestroy);
}

void fill(I32Map* map, uint32_t first, uint32_t last, uint32_t stride = 1) {
    for (uint32_t key = first; key <= last; ++key) {
        ASSERT_EQ(i32mapSet(map, key * stride, key), kStatusSuccess);
    }
}

// The wraps of the generation are met on the way: it starts a few clears ahead of one. What memory
// fails changes nothing.
TEST(I32Map, HoldsWhatWasSetSinceTheLastClear) {
    for (const uint32_t buckets : {1u, 4u, 5u, 64u}) {
        SCOPED_TRACE(buckets);
        std::mt19937 random(buckets);
        const Map map = make(buckets);
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
        EXPECT_LT(map->generation, 1000u);
    }
}

// At the wrap of the generation the nodes leave their buckets and serve any bucket from then on;
// otherwise they stay in their chains.
TEST(I32Map, ReusesItsNodesAfterAClear) {
    for (const auto& [generation, stride] : {std::pair{0u, 8u}, {UINT32_MAX, 1u}}) {
        const Map map = make(8);
        map->generation = generation;
        fill(map.get(), 1, 6, 8);  // one chain
        EXPECT_EQ(i32mapClear(map.get()), kStatusSuccess);
        EXPECT_EQ(i32mapFind(map.get(), 8, nullptr), kStatusNotFound);

        FailAlloc none{.after = 0, .forGood = true};
        fill(map.get(), 11, 16, stride);
        EXPECT_EQ(allocationsCounted(), 0u);
        EXPECT_EQ(map->count, 6u);
    }
}

TEST(I32Map, TakesAllPartsFromItsPools) {
    ItemPool *maps = nullptr, *nodes = nullptr, *buckets = nullptr;
    EXPECT_FALSE(i32mapCreatePools(&maps, &nodes, &buckets));

    ToyPoolMaker maker;
    ASSERT_TRUE(i32mapCreatePools(&maps, &nodes, &buckets));
    EXPECT_EQ(maker.sizes, (std::vector<uint32_t>{64, 32, 16}));
    I32Map* map = i32mapCreate(1, maps, nodes, buckets);
    fill(map, 7, 7);
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 1, 1}));
    fill(map, 1, 5);
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 6, 0}));  // one bucket was outgrown

    // Stale nodes go back at the next growth.
    EXPECT_EQ(i32mapClear(map), kStatusSuccess);
    fill(map, 0, 8, 8);
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 9, 0}));
    i32mapDestroy(map);
    for (ItemPool* pool : {maps, nodes, buckets}) {
        poolUnmake(pool);
    }
}

TEST(I32Map, IsNotMadeWithoutMemory) {
    EXPECT_EQ(i32mapCreate(0), nullptr);
    EXPECT_EQ(i32mapCreate((1u << 31) + 1), nullptr);
    eachAllocationFails([] {
        const Map map = make(1);
        EXPECT_EQ(map == nullptr, allocationsFailed() != 0);
    });
    EXPECT_EQ(i32mapClear(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(i32mapFind(nullptr, 1, nullptr), kStatusInvalidArgument);
}

}  // namespace
