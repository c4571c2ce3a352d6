#include "lib/msg/pool.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <set>

#include "lib/base/lock.h"
#include "lib/msg/buffer.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"
#include "tests/support/test.h"

namespace {

// Fake timers for the freeing of idle blocks, fired by hand; installed while the object exists.
// Its lock ranks before those of the pools, as the runtime's locks do: a debug build stops if it is
// taken with a pool's lock held.
struct PoolTimers : NoCopy {
    struct Row {
        uint32_t queue;
        double seconds;
        void (*callback)(uint32_t, pelmoMsg*, void*);
        void* closure;
        void (*completion)(uint32_t, void*);  // null while the timer exists
    };

    PoolTimers() {
        current = this;
        poolTimerOps = {
            .create =
                [](uint32_t* out, uint32_t queue, auto callback, double seconds, void* closure) {
                    return current->create(out, {queue, seconds, callback, closure, nullptr});
                },
            .destroyEx = [](uint32_t timer, auto done) { return current->destroyEx(timer, done); },
        };
    }
    ~PoolTimers() { poolTimerOps = {}; }

    pelmoStatus create(uint32_t* out, const Row& row) {
        const LockGuard guard(lock);
        if (failAt-- == 0) return kStatusInvalidQueue;
        rows.push_back(row);
        *out = kFirstId + static_cast<uint32_t>(rows.size()) - 1;
        if (whileCreating != nullptr) whileCreating();
        return kStatusSuccess;
    }
    pelmoStatus destroyEx(uint32_t timer, void (*completion)(uint32_t, void*)) {
        const LockGuard guard(lock);
        if (refuseToDestroy) return kStatusInvalidEvent;
        rows.at(timer - kFirstId).completion = completion;
        if (!late) complete(timer);
        return kStatusSuccess;
    }
    void complete(uint32_t timer) {
        const Row& row = rows.at(timer - kFirstId);
        row.completion(timer, row.closure);
    }
    void tick() {
        for (const Row& row : rows) {
            if (row.completion == nullptr) row.callback(kFirstId, nullptr, row.closure);
        }
    }
    long alive() const { return std::ranges::count(rows, nullptr, &Row::completion); }

    static constexpr uint32_t kFirstId = 1001;
    static inline PoolTimers* current = nullptr;
    Lock lock = PELMO_LOCK_READY(LockRank::kEventManager);
    std::vector<Row> rows;
    int failAt = -1;               // which create fails
    bool late = false;             // completions are deferred to complete()
    bool refuseToDestroy = false;  // destroyEx fails
    void (*whileCreating)() = nullptr;
};

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
    ChunkPool *pool = makePool(300, 1, 1), *other = makePool(10, 1, 1);
    const std::vector<Item*> items = takeMany(pool, 300);
    give(other, take(other));  // all pools count together
    for (uint32_t given = 1; given <= 256; ++given) {
        give(pool, items[given - 1]);
        EXPECT_EQ(availableIn(pool), given < 255 ? 0u : 255u);
    }
    FailAlloc none{.after = 0, .forGood = true};
    Item* const item = take(pool);
    give(pool, item);
    EXPECT_EQ(take(pool), item);  // while it is hot
    give(pool, item);
    EXPECT_EQ(allocationsCounted(), 0u);
    allocationsHeal();
    destroy(pool);
    destroy(other);
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
            std::ranges::for_each(items, [&](Item* item) { give(pool, item); });
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
// holds nothing, and one that isn't wanted any more once it is made goes at once.
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
    timers.refuseToDestroy = false;
    static ChunkPool* last = makePool(10, 1, 1);
    timers.failAt = 0;
    EXPECT_EQ(poolStartReclaim(2), kStatusInvalidQueue);
    poolStopReclaim();
    timers.rows.clear();
    for (void (*meanwhile)() : {+[] { poolStopReclaim(); }, +[] { destroy(last); }}) {
        timers.whileCreating = meanwhile;
        EXPECT_EQ(poolStartReclaim(2), kStatusSuccess);
        EXPECT_EQ(timers.alive(), 0);
        poolStopReclaim();
    }
    EXPECT_EQ(timers.rows.size(), 2u);
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
    EXPECT_LT(chunksIn(pool), 4000u);  // of 32,000 taken: what is free is used before new blocks
    poolStopReclaim();
    EXPECT_EQ(timers.alive(), 0);
    destroy(pool);
}

// Records come from the heap, or from pools with or without a cache; private pools have 20 records
// with 100 inline bytes.
void growAndShrink(ChunkPool* privatePool) {
    for (const uint32_t asked : {0u, 1u, 32u, 33u, 100u, 101u, 70000u}) {
        EXPECT_EQ(bufferBytesCounted(), 0u);
        Buffer* buffer = bufferCreateFrom(privatePool, asked);
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(buffer->data == nullptr, asked == 0);
        std::vector<uint8_t> model(asked == 0 ? 0 : std::max(asked, 32u));
        std::ranges::copy(model, buffer->data);
        for (const int32_t change : {0, 50, -20, 10000, -9990}) {
            ASSERT_EQ(bufferGrow(buffer, change), kStatusSuccess);
            const size_t before = model.size();
            model.resize(before + static_cast<size_t>(change));
            EXPECT_EQ(buffer->size, model.size());
            EXPECT_EQ(bufferBytesCounted(), model.size());
            const size_t kept = std::min(before, model.size());
            EXPECT_TRUE(std::equal(buffer->data, buffer->data + kept, model.begin()));
            std::iota(model.begin(), model.end(), static_cast<uint8_t>(change));
            std::ranges::copy(model, buffer->data);
        }
        const auto all = -static_cast<int32_t>(model.size());
        EXPECT_EQ(bufferGrow(buffer, all - 1), kStatusNoMemory);
        EXPECT_EQ(buffer->size, model.size());
        ASSERT_EQ(bufferGrow(buffer, all), kStatusSuccess);
        ASSERT_EQ(bufferGrow(buffer, 40), kStatusSuccess);
        std::memset(buffer->data, 1, 40);
        bufferRelease(buffer);
    }
}

TEST(Buffer, GrowsAndShrinksWithItsBytesWhereverItComesFrom) {
    bufferCountBytes();
    growAndShrink(nullptr);
    for (const uint32_t cache : {0u, 1u}) {
        const OpenPools pools(cache);
        ChunkPool* privatePool = nullptr;
        EXPECT_EQ(bufferPoolCreate(), kStatusSuccess);
        EXPECT_EQ(bufferPrivatePool(&privatePool, 1, UINT32_MAX - 16), kStatusNoMemory);
        ASSERT_EQ(bufferPrivatePool(&privatePool, 20, 100), kStatusSuccess);
        growAndShrink(nullptr);
        growAndShrink(privatePool);
        poolThreadLeave();
        EXPECT_EQ(availableIn(privatePool), chunksIn(privatePool));
        poolDestroy(privatePool, __FILE__, __LINE__);
        bufferPoolDestroy();
    }
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
