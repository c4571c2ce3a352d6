#include "lib/containers/hash.h"

#include <map>
#include <memory>
#include <random>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"

namespace {

using Table = std::unique_ptr<Hash, decltype(&hashDestroy)>;

uint32_t lengthOf(const std::string& key) {
    return static_cast<uint32_t>(key.size());
}

TEST(Hash, ComputesTheSameHashEverywhere) {
    const std::pair<std::string, uint32_t> cases[] = {
        {"", 0xffffffff},
        {"AB", 0x4142},
        {"ABC", 0x9f151},
        {"\xff\xff\xff\xff\xff\xff", 0xffffu * 39 * 39 + 0xffffu * 39 + 0xffff},
        {std::string("\0\x80\xff", 3), 0x80 * 39 + 0xff},
    };
    for (const auto& [key, hash] : cases) {
        EXPECT_EQ(hashKeyHash(key.data(), lengthOf(key)), hash) << testing::PrintToString(key);
    }
}

TEST(Hash, BorrowsTheLatestKeyUntilItOwnsOne) {
    const Table table(hashCreate(4), hashDestroy);
    const char keys[4][4] = {"key", "key", "key", "key"};
    const void *held = nullptr, *owned = nullptr;
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(hashPut(table.get(), keys[i], 3, 0, i == 2, number(i + 1)));
        EXPECT_EQ(hashFind(table.get(), "key", 0, 0), number(i + 1));
        HashIterator iterator;
        hashIterInit(table.get(), &iterator);
        EXPECT_TRUE(hashIterNext(&iterator, &held, nullptr, nullptr));
        if (i == 2) owned = held;
        EXPECT_EQ(held, i < 2 ? keys[i] : owned);
    }
    EXPECT_NE(owned, keys[2]);
}

// A put that memory fails changes nothing. Some keys are longer than the items of their pool.
TEST(Hash, FollowsItsModelWithPoolsAndWithout) {
    const OpenPools open(0);
    ItemPool *tables = nullptr, *entries = nullptr, *keys = nullptr, *buckets = nullptr;
    ASSERT_TRUE(hashCreatePools(&tables, &entries, 10, &keys, &buckets));
    for (const bool pooled : {false, true}) {
        std::mt19937 random(7);
        const Table table(
            pooled ? hashCreateWithPools(1, tables, entries, keys, buckets) : hashCreate(1),
            hashDestroy);
        std::map<std::string, void*> model;
        for (uintptr_t step = 1; step < 10000; ++step) {
            const std::string key = std::to_string(random() % 300);
            void* value = random() % 3 == 0 ? nullptr : number(step);
            const bool present = model.contains(key);
            FailAlloc fail{.after = random() % 4};
            const uint32_t length = random() % 2 == 0 ? 0 : lengthOf(key);  // 0: a C string
            const bool put = hashPut(table.get(), key.c_str(), length, 0, true, value);
            allocationsHeal();
            ASSERT_EQ(put, allocationsFailed() == 0 && (value != nullptr || present));
            if (put && value != nullptr) model[key] = value;
            if (value == nullptr) model.erase(key);
            ASSERT_EQ(table->count, model.size());
            const auto known = model.find(std::to_string(random() % 300));
            if (known == model.end()) continue;
            ASSERT_EQ(hashFind(table.get(), known->first.c_str(), 0, 0), known->second);
        }
    }
    for (ItemPool* pool : {tables, entries, keys, buckets}) {
        auto* chunks = static_cast<ChunkPool*>(pool->pool);
        EXPECT_EQ(availableIn(chunks), chunksIn(chunks));
        poolUnmake(pool);
    }
}

}  // namespace
