#include "lib/msg/pool.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>

#include "tests/support/pool_manager.h"
#include "tests/support/pool_timers.h"
#include "tests/support/test.h"

namespace {

// The object that the tests' pools hold.
struct Item {
    uint64_t first;
    void* poolOwner;
    uint64_t last;
};

constinit std::atomic<int> finished = 0;

ChunkPool* makePool(uint32_t perBlock, uint32_t least, uint32_t refresh) {
    return poolCreate(
        perBlock, sizeof(Item), offsetof(Item, poolOwner), nullptr, [](void*) { ++finished; },
        least, refresh, __FILE__, __LINE__);
}

Item* take(ChunkPool* pool) {
    auto* item = static_cast<Item*>(poolTake(pool, __FILE__, __LINE__));
    if (item != nullptr) item->first = item->last = reinterpret_cast<uintptr_t>(item);
    return item;
}

void give(ChunkPool* pool, Item* item) {
    EXPECT_EQ(item->first, reinterpret_cast<uintptr_t>(item));
    EXPECT_EQ(item->last, reinterpret_cast<uintptr_t>(item));
    poolGive(pool, item, __FILE__, __LINE__);
}

std::vector<Item*> takeMany(ChunkPool* pool, size_t count) {
    std::vector<Item*> items(count);
    std::ranges::generate(items, [&] { return take(pool); });
    EXPECT_EQ(std::ranges::count(items, nullptr), 0);
    EXPECT_EQ(std::set<Item*>(items.begin(), items.end()).size(), count);
    return items;
}

void giveAll(ChunkPool* pool, const std::vector<Item*>& items) {
    for (Item* item : items) {
        give(pool, item);
    }
}

void destroy(ChunkPool* pool) {
    poolDestroy(pool, __FILE__, __LINE__);
}

TEST(Pool, RefusesSizesThatMakeNoBlock) {
    EXPECT_EQ(makePool(10, 0, 1), nullptr) << "no manager yet";
    const OpenPools open(0);
    const struct {
        uint32_t perBlock, chunkBytes, offset;
        uint64_t bytes;  // of one block; 0: refused
    } cases[] = {{10, 20, 12, 240}, {1, 8, 0, 8},   {10, 20, 13, 0},      {10, 7, 0, 0},
                 {0, 20, 0, 0},     {1, ~0u, 0, 0}, {1u << 28, 16, 0, 0}, {10, 20, ~0u - 3, 0}};
    for (const auto& [perBlock, chunkBytes, offset, bytes] : cases) {
        ChunkPool* pool =
            poolCreate(perBlock, chunkBytes, offset, nullptr, nullptr, 1, 0, __FILE__, __LINE__);
        ASSERT_EQ(pool == nullptr, bytes == 0) << perBlock << "*" << chunkBytes;
        if (pool == nullptr) continue;
        EXPECT_EQ(poolSizes(pool, nullptr, nullptr), bytes);
        void* chunk = poolTake(pool, __FILE__, __LINE__);
        std::memset(chunk, 0xa5, offset);
        poolGive(pool, chunk, __FILE__, __LINE__);
        poolGive(pool, std::calloc(1, chunkBytes), __FILE__, __LINE__);  // no pool's: is freed
        EXPECT_EQ(availableIn(pool), perBlock);
        destroy(pool);
    }
}

TEST(Pool, GivesBackAtThe256thGive) {
    const OpenPools open(1);
    ChunkPool* pool = makePool(300, 1, 1);
    ChunkPool* other = makePool(10, 1, 1);
    const std::vector<Item*> items = takeMany(pool, 300);
    give(other, take(other));  // all pools count together
    for (uint32_t given = 1; given <= 256; ++given) {
        give(pool, items[given - 1]);
        EXPECT_EQ(availableIn(pool), given < 255 ? 0u : 255u);
    }
    destroy(pool);
    destroy(other);
}

TEST(Pool, FindsFreeChunksAmongManyUsedBlocks) {
    for (const uint32_t cache : {0u, 1u}) {
        const OpenPools open(cache);
        ChunkPool* pool = makePool(7, 2, 3);
        std::mt19937 random(1);
        std::vector<Item*> items = takeMany(pool, 100);
        for (int round = 0; round < 50; ++round) {
            std::ranges::shuffle(items, random);
            const auto kept = static_cast<std::ptrdiff_t>(random() % 100);
            giveAll(pool, {items.begin() + kept, items.end()});
            poolThreadLeave();
            poolThreadEnter();
            EXPECT_EQ(availableIn(pool), chunksIn(pool) - static_cast<uint32_t>(kept));
            items.resize(static_cast<size_t>(kept));
            while (items.size() < 100) {
                items.push_back(take(pool));
            }
            EXPECT_EQ(std::set<Item*>(items.begin(), items.end()).size(), 100u);
        }
        // What is free is used before new blocks.
        EXPECT_LE(chunksIn(pool), 112u);
        destroy(pool);
    }
}

TEST(PoolReclaim, FreesWhatLayIdleForAWholeTickButTheLeast) {
    for (const uint32_t option : {0u, 1u, 2u, 3u}) {
        const OpenPools open(option % 2);
        PoolTimers timers;
        ASSERT_EQ(poolStartReclaim(2), kStatusSuccess);
        ChunkPool* pool = makePool(100, 1, 10);
        finished = 0;
        std::vector<Item*> items = takeMany(pool, 101);
        timers.tick();
        timers.tick();
        if (option > 1) std::ranges::reverse(items);
        for (int round = 0; round < 2; ++round) {  // used between two ticks
            giveAll(pool, items);
            poolThreadLeave();
            timers.tick();
            EXPECT_EQ(chunksIn(pool), 200u);
            poolThreadEnter();
            if (round == 0) items = takeMany(pool, 101);
        }
        timers.tick();
        timers.tick();
        EXPECT_EQ(chunksIn(pool), 100u);
        EXPECT_EQ(availableIn(pool), 100u);
        EXPECT_GE(finished, 10) << "those prepared in that block";
        destroy(pool);
        poolStopReclaim();
    }
}

// A tick that is under way when its pool is destroyed ends well. A timer that can't be destroyed
// holds nothing.
TEST(PoolReclaim, HasATimerForEachPoolWhileItRuns) {
    const OpenPools open(1);
    EXPECT_EQ(poolStartReclaim(2), kStatusNotInitialized);
    PoolTimers timers;
    ChunkPool* before = makePool(10, 1, 1);
    ASSERT_EQ(poolStartReclaim(2), kStatusSuccess);
    EXPECT_EQ(poolStartReclaim(2), kStatusNotPermitted);
    ChunkPool* after = makePool(10, 1, 1);
    ASSERT_EQ(timers.alive(), 2);
    EXPECT_EQ(timers.rows[1].queue, 2u);
    EXPECT_EQ(timers.rows[1].seconds, 60.0);

    timers.late = true;
    destroy(before);
    EXPECT_EQ(timers.alive(), 1);
    timers.rows[0].callback(PoolTimers::kFirstId, nullptr, timers.rows[0].closure);
    finished = 0;
    timers.complete(PoolTimers::kFirstId);
    EXPECT_EQ(finished, 10);
    timers.late = false;
    poolStopReclaim();
    poolStopReclaim();
    EXPECT_EQ(timers.alive(), 0);

    ASSERT_EQ(poolStartReclaim(3), kStatusSuccess);
    timers.refuseToDestroy = true;
    poolStopReclaim();
    destroy(after);
    EXPECT_EQ(finished, 20);
    timers.failAt = 0;
    ChunkPool* last = makePool(10, 1, 1);
    EXPECT_EQ(poolStartReclaim(2), kStatusInvalidQueue);
    destroy(last);
}

TEST(PoolReclaim, DropsATimerThatIsNotWantedAnyMoreOnceMade) {
    const OpenPools open(1);
    static ChunkPool* pool = nullptr;
    using Meanwhile = void (*)();
    for (const Meanwhile meanwhile :
         {Meanwhile{poolStopReclaim}, Meanwhile{[] { destroy(pool); }}}) {
        PoolTimers timers;
        pool = makePool(10, 1, 1);
        timers.whileCreating = meanwhile;
        EXPECT_EQ(poolStartReclaim(2), kStatusSuccess);
        ASSERT_EQ(timers.rows.size(), 1u);
        EXPECT_EQ(timers.alive(), 0);
        poolStopReclaim();
        if (meanwhile == poolStopReclaim) destroy(pool);
    }
}

// Eight threads take, hand on to each other and give, while others come and go, pools are made and
// die, and ticks free blocks.
TEST(Pool, HoldsUnderEightThreads) {
    const OpenPools open(1);
    PoolTimers timers;
    timers.rows.reserve(1000);
    ChunkPool* pool = makePool(16, 1, 4);
    ASSERT_EQ(poolStartReclaim(2), kStatusSuccess);
    const PoolTimers::Row timer = timers.rows.front();

    std::atomic<Item*> mailboxes[32] = {};
    race(8, 1, [&](int number, int) {
        std::mt19937 random(static_cast<uint32_t>(number));
        poolThreadEnter();
        for (int round = 0; round < 4000; ++round) {
            Item* received = mailboxes[random() % std::size(mailboxes)].exchange(take(pool));
            if (received != nullptr) give(pool, received);
            if (round % 500 == 0) {
                ChunkPool* ownPool = makePool(8, 1, 2);
                give(ownPool, take(ownPool));
                destroy(ownPool);
            }
            if (round % 700 == 0) poolThreadLeave();
            if (round % 800 == 0) poolThreadEnter();
            if (round % 64 == 0) timer.callback(PoolTimers::kFirstId, nullptr, timer.closure);
        }
    });
    for (std::atomic<Item*>& mailbox : mailboxes) {
        if (Item* item = mailbox.exchange(nullptr)) give(pool, item);
    }
    poolThreadLeave();
    EXPECT_EQ(availableIn(pool), chunksIn(pool));
    poolStopReclaim();
    EXPECT_EQ(timers.alive(), 0);
    destroy(pool);
}

#ifdef __SANITIZE_ADDRESS__
TEST(PoolDeathTest, StopsAtAccessToAFreeChunk) {
    const OpenPools open(1);
    ChunkPool* pool = makePool(10, 1, 1);
    Item* item = take(pool);
    give(pool, item);
    EXPECT_DEATH(item->first = 1, "use-after-poison");
    EXPECT_DEATH(item->last = 1, "use-after-poison");
    destroy(pool);
}
#endif

}  // namespace
