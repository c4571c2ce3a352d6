#include "lib/containers/hash.h"

#include <map>
#include <memory>
#include <random>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/toy_pool.h"

namespace {

using Table = std::unique_ptr<Hash, decltype(&hashDestroy)>;

Table make(uint32_t buckets) {
    return Table(hashCreate(buckets), hashDestroy);
}

uint32_t lengthOf(const std::string& key) {
    return static_cast<uint32_t>(key.size());
}

TEST(Hash, ComputesTheSameHashEverywhere) {
    const struct {
        std::string key;
        uint32_t hash;
    } cases[] = {
        {"", 0xffffffff},
        {"AB", 0x4142},
        {"ABC", 0x9f151},
        {std::string("\0", 1), 0xffffffff},
        {std::string("\xff\xff\xff\xff\xff\xff", 6), 0xffffu * 39 * 39 + 0xffffu * 39 + 0xffff},
        {std::string("\0\x80\xff", 3), 0x80 * 39 + 0xff},
    };
    for (const auto& [key, hash] : cases) {
        EXPECT_EQ(hashKeyHash(key.data(), lengthOf(key)), hash) << testing::PrintToString(key);
    }
}

TEST(Hash, MeasuresKeysAndGrowsOnlyForNewOnes) {
    const Table table = make(2);
    EXPECT_TRUE(hashPut(table.get(), "A", 0, 0, true, number(1)));
    EXPECT_TRUE(hashPut(table.get(), "A", 2, 0, true, number(2)));  // its NUL counted: another key
    EXPECT_TRUE(hashPut(table.get(), "A", 1, 0x41, false, number(3)));
    EXPECT_EQ(table->bucketCount, 2u);
    EXPECT_TRUE(hashPut(table.get(), "", 0, 0, true, number(4)));
    EXPECT_EQ(table->bucketCount, 4u);
    EXPECT_EQ(hashFind(table.get(), "A", 0, 0), number(3));
    EXPECT_EQ(hashFind(table.get(), "A", 2, 0), number(2));
    EXPECT_EQ(hashFind(table.get(), "", 0, 0xffffffff), number(4));

    EXPECT_EQ(hashCreate(0), nullptr);
    EXPECT_EQ(hashCreate((1u << 31) + 1), nullptr);
    EXPECT_EQ(hashFind(table.get(), "A", 1u << 31, 0), nullptr);
    EXPECT_FALSE(hashPut(table.get(), "A", 1u << 31, 0, true, number(1)));
}

TEST(Hash, BorrowsTheLatestKeyUntilItOwnsOne) {
    const Table table = make(4);
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

// A put that memory fails changes nothing.
TEST(Hash, HoldsWhatWasPutInWhileItIsSwept) {
    std::mt19937 random(7);
    const Table table = make(1);
    std::map<std::string, void*> model;
    size_t failures = 0;
    for (uintptr_t step = 1; step < 20000; ++step) {
        const std::string key = std::to_string(random() % 300);
        void* value = random() % 3 == 0 ? nullptr : number(step);
        const bool present = model.contains(key);
        const size_t after = random() % 4;
        FailAlloc fail{.after = after == 3 ? kNeverFails : after};
        const bool put = hashPut(table.get(), key.data(), lengthOf(key), 0, true, value);
        allocationsHeal();
        failures += allocationsFailed();
        ASSERT_EQ(put, allocationsFailed() == 0 && (value != nullptr || present));
        if (put && value != nullptr) model[key] = value;
        if (value == nullptr) model.erase(key);
        ASSERT_EQ(table->count, model.size());
        if (step % 1000 != 0) continue;

        std::map<std::string, void*> seen;
        const auto before = model;
        HashIterator iterator;
        hashIterInit(table.get(), &iterator);
        const void* held = nullptr;
        uint32_t length = 0;
        while (hashIterNext(&iterator, &held, &length, &value)) {
            const std::string text(static_cast<const char*>(held), length);
            ASSERT_TRUE(seen.emplace(text, value).second);
            ASSERT_EQ(hashFind(table.get(), text.data(), length, 0), value);
            if (random() % 2 == 0) continue;
            hashIterRemove(&iterator);
            model.erase(text);
            ASSERT_EQ(hashFind(table.get(), text.data(), length, 0), nullptr);
        }
        ASSERT_EQ(seen, before);
        ASSERT_EQ(table->count, model.size());
    }
    EXPECT_GT(failures, 1000u);
}

TEST(Hash, TakesItsPartsFromPoolsWhereTheyFit) {
    ItemPool *tables = nullptr, *entries = nullptr, *keys = nullptr, *buckets = nullptr;
    EXPECT_FALSE(hashCreatePools(&tables, &entries, 16, &keys, &buckets));

    ToyPoolMaker maker;
    ASSERT_TRUE(hashCreatePools(&tables, &entries, 16, &keys, &buckets));
    EXPECT_EQ(maker.sizes, (std::vector<uint32_t>{64, 40, 16, 16}));
    Hash* table = hashCreateWithPools(1, tables, entries, keys, buckets);
    EXPECT_TRUE(hashPut(table, "12345678", 0, 0, true, number(1)));
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 1, 1, 1}));
    EXPECT_TRUE(hashPut(table, "123456789", 0, 0, true, number(2)));  // too long for an item
    EXPECT_TRUE(hashPut(table, "1", 0, 0, false, number(3)));
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 3, 1, 0}));  // one bucket was outgrown
    EXPECT_TRUE(hashPut(table, "12345678", 0, 0, true, nullptr));
    EXPECT_EQ(maker.held(), (std::vector<size_t>{1, 2, 0, 0}));
    hashDestroy(table);
    for (ItemPool* pool : {tables, entries, keys, buckets}) {
        poolUnmake(pool);
    }
}

}  // namespace
