#include "lib/msg/pool.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "tests/support/fail_alloc.h"
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

constinit std::atomic<int> initialised = 0;
constinit std::atomic<int> finished = 0;

ChunkPool* makePool(uint32_t perBlock, uint32_t least, uint32_t refresh) {
    return poolCreate(
        perBlock, sizeof(Item), offsetof(Item, poolOwner), [](void*) { ++initialised; },
        [](void*) { ++finished; }, least, refresh, __FILE__, __LINE__);
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
    } cases[] = {{10, 20, 12, 240},    {10, 24, 16, 240}, {1, 8, 0, 8},
                 {10, 20, 13, 0},      {10, 7, 0, 0},     {0, 20, 0, 0},
                 {10, 20, ~0u - 3, 0}, {1, ~0u, 0, 0},    {1u << 28, 16, 0, 0}};
    for (const auto& [perBlock, chunkBytes, offset, bytes] : cases) {
        ChunkPool* pool =
            poolCreate(perBlock, chunkBytes, offset, nullptr, nullptr, 1, 0, __FILE__, __LINE__);
        ASSERT_EQ(pool == nullptr, bytes == 0) << perBlock << "*" << chunkBytes;
        if (pool == nullptr) continue;
        EXPECT_EQ(poolSizes(pool, nullptr, nullptr), bytes);
        void* chunk = poolTake(pool, __FILE__, __LINE__);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(chunk) % 8, 0u);
        std::memset(chunk, 0xa5, offset);
        poolGive(pool, chunk, __FILE__, __LINE__);
        poolGive(pool, std::calloc(1, chunkBytes), __FILE__, __LINE__);  // no pool's: is freed
        EXPECT_EQ(availableIn(pool), perBlock);
        destroy(pool);
    }
}

TEST(Pool, PreparesChunksBatchByBatch) {
    const OpenPools open(0);
    initialised = finished = 0;
    ChunkPool* pool = makePool(25, 1, 10);
    EXPECT_EQ(initialised, 25) << "the least blocks at once";
    std::vector<Item*> items;
    // Another batch is prepared when less than one is free.
    for (const auto& [taken, prepared] : std::vector<std::pair<size_t, int>>{
             {25, 25}, {26, 35}, {27, 45}, {36, 45}, {37, 50}, {50, 50}, {51, 60}}) {
        while (items.size() < taken) {
            items.push_back(take(pool));
        }
        EXPECT_EQ(initialised, prepared) << taken;
    }
    giveAll(pool, items);
    EXPECT_EQ(takeMany(pool, 50).size(), 50u);
    EXPECT_EQ(finished, 0);
    destroy(pool);
    EXPECT_EQ(finished, initialised) << "taken ones too";
}

TEST(Pool, TakesAndGivesOnOneThreadWithoutAllocating) {
    const OpenPools open(1);
    ChunkPool* pool = makePool(100, 1, 10);
    giveAll(pool, takeMany(pool, 100));

    const FailAlloc count{.after = kNeverFails};
    for (int i = 0; i < 10000; ++i) {
        Item* item = take(pool);
        give(pool, item);
        EXPECT_EQ(take(pool), item) << "while it is hot";
        give(pool, item);
    }
    EXPECT_EQ(allocationsCounted(), 0u);
    allocationsHeal();
    destroy(pool);
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
    poolThreadLeave();
    EXPECT_EQ(availableIn(pool), 256u);
    EXPECT_EQ(availableIn(other), 10u);
    destroy(pool);
    destroy(other);
}

TEST(Pool, FindsFreeChunksBehindManyUsedBlocks) {
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
        // What is free is used ahead of new blocks.
        EXPECT_LE(chunksIn(pool), 112u);
        destroy(pool);
    }
}

TEST(PoolReclaim, FreesWhatLayIdleForAWholeTickButTheLeast) {
    for (const uint32_t cache : {0u, 1u}) {
        for (const bool backwards : {false, true}) {
            const OpenPools open(cache);
            PoolTimers timers;
            ASSERT_EQ(poolStartReclaim(2), kStatusSuccess);
            ChunkPool* pool = makePool(100, 1, 10);
            finished = 0;
            std::vector<Item*> items = takeMany(pool, 101);
            EXPECT_EQ(chunksIn(pool), 200u);
            timers.tick();
            timers.tick();
            if (backwards) std::ranges::reverse(items);
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
}

TEST(PoolReclaim, HasATimerForEachPoolWhileItRuns) {
    const OpenPools open(1);
    EXPECT_EQ(poolStartReclaim(2), kStatusNotInitialized);
    PoolTimers timers;
    ChunkPool* before = makePool(10, 1, 1);
    ASSERT_EQ(poolStartReclaim(2), kStatusSuccess);
    EXPECT_EQ(poolStartReclaim(2), kStatusNotPermitted);
    ChunkPool* after = makePool(10, 1, 1);
    ASSERT_EQ(timers.alive(), 2);
    for (const PoolTimers::Row& row : timers.rows) {
        EXPECT_EQ(row.queue, 2u);
        EXPECT_EQ(row.seconds, 60.0);
    }
    // A tick that is under way when the pool is destroyed ends well.
    timers.late = true;
    destroy(before);
    EXPECT_EQ(timers.alive(), 1);
    timers.rows[0].callback(PoolTimers::kFirstId, nullptr, timers.rows[0].closure);
    finished = 0;
    timers.complete(PoolTimers::kFirstId);
    EXPECT_EQ(finished, 10);
    timers.late = false;

    poolStopReclaim();
    EXPECT_EQ(timers.alive(), 0);
    poolStopReclaim();
    ASSERT_EQ(poolStartReclaim(3), kStatusSuccess);
    EXPECT_EQ(timers.alive(), 1);
    EXPECT_EQ(timers.rows.back().queue, 3u);
    timers.refuseToDestroy = true;
    poolStopReclaim();
    finished = 0;
    destroy(after);
    EXPECT_EQ(finished, 10) << "the timer that couldn't be destroyed holds nothing";

    timers.failAt = 0;
    ChunkPool* last = makePool(10, 1, 1);
    EXPECT_EQ(poolStartReclaim(2), kStatusInvalidQueue);
    timers.failAt = 0;
    EXPECT_EQ(makePool(10, 1, 1), nullptr);
    EXPECT_EQ(finished, 20);
    destroy(last);
}

TEST(PoolReclaim, DropsATimerThatIsntWantedAnyMoreOnceMade) {
    const OpenPools open(1);
    static ChunkPool* pool = nullptr;
    using Meanwhile = void (*)();
    const Meanwhile meanwhiles[] = {poolStopReclaim, [] { destroy(pool); }};
    for (const Meanwhile meanwhile : meanwhiles) {
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

TEST(Pool, LeavesNothingHalfMade) {
    PoolTimers timers;
    const size_t failing = eachAllocationFails([&] {
        timers.rows.clear();
        if (poolManagerOpen(1) != kStatusSuccess) {
            EXPECT_NE(allocationsFailed(), 0u);
            return;
        }
        poolThreadEnter();
        const pelmoStatus started = poolStartReclaim(2);
        EXPECT_TRUE(started == kStatusSuccess || started == kStatusNoMemory);
        ChunkPool* pool = makePool(20, 2, 5);
        EXPECT_TRUE(pool != nullptr || allocationsFailed() != 0);
        if (pool != nullptr) {
            std::vector<Item*> items(60);
            std::ranges::generate(items, [&] { return take(pool); });
            std::erase(items, nullptr);
            EXPECT_TRUE(items.size() == 60 || allocationsFailed() != 0);
            giveAll(pool, items);
            destroy(pool);
        }
        testing::internal::CaptureStderr();
        poolStopReclaim();  // without memory it keeps them, and says so
        (void)testing::internal::GetCapturedStderr();
        allocationsHeal();
        poolStopReclaim();
        poolManagerClose();
        EXPECT_EQ(timers.alive(), 0);
    });
    EXPECT_GT(failing, 20u);
}

TEST(Pool, IsDumpedWithAMapOfItsChunks) {
    const OpenPools open(0);
    ChunkPool* pool = makePool(53, 1, 10);
    std::vector<Item*> items = takeMany(pool, 54);
    std::ranges::sort(items);
    // The 51st chunk of the first block, wherever the second one lies.
    const bool secondLies = items[1] - items[0] != 1;
    give(pool, items[secondLies ? 51 : 50]);
    testing::internal::CaptureStderr();
    poolDumpAll();
    // Without white space, addresses, and what the log puts ahead of each line.
    const std::regex aside("[^\n]*?: (?=[^\n]*\n)|0x[0-9a-f]+|\t|\n");
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStderr(), aside, ""),
              "Pool:id:0refCount:1blockSize:1272chunkSize:24chunksPerBlock:53offset:8"
              "minBlockCount:1blockCount:2refreshCount:10chunksAvailable:53chunksIssued:54"
              "chunksReturned:1"
              "Block 0:block:size:1272mmaped:0freeable:0chunks:initCount:10chunksAvailable:9"
              "Free Chunks:|fffffffff " +
                  std::string(40, 'x') + "||xxx|" +
                  "Block 1:block:size:1272mmaped:0freeable:0chunks:initCount:53chunksAvailable:1"
                  "Free Chunks:|" +
                  std::string(50, ' ') + "||f  |");
    destroy(pool);
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
    std::vector<std::thread> threads;
    for (uint32_t number = 0; number < 8; ++number) {
        threads.emplace_back([&, number] {
            std::mt19937 random(number);
            poolThreadEnter();
            for (int round = 0; round < 4000; ++round) {
                Item* item = take(pool);
                Item* received = mailboxes[random() % std::size(mailboxes)].exchange(item);
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
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
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
TEST(PoolDeathTest, StopsWhoTouchesAFreeChunk) {
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
