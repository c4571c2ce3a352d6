#include <algorithm>
#include <bit>
#include <deque>
#include <map>
#include <memory>
#include <random>

#include "lib/containers/dict.h"
#include "lib/containers/entry_ring.h"
#include "lib/containers/hash.h"
#include "lib/containers/i32map.h"
#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/pool_manager.h"

namespace {

void expectAllGivenBack(std::initializer_list<ItemPool*> pools) {
    for (ItemPool* pool : pools) {
        auto* chunks = static_cast<ChunkPool*>(pool->pool);
        EXPECT_EQ(availableIn(chunks), chunksIn(chunks));
        poolUnmake(pool);
    }
}

TEST(Hash, ComputesTheSameHashEverywhere) {
    EXPECT_EQ(hashKeyHash("", 0), 0xffffffff);
    EXPECT_EQ(hashKeyHash("ABC", 3), 0x9f151u);
    EXPECT_EQ(hashKeyHash("\xff\xff\xff\xff", 4), 0xffffu * 39 + 0xffff);
    EXPECT_EQ(hashKeyHash("\0\x80\xff", 3), 0x80u * 39 + 0xff);
}

// A put that memory fails changes nothing. Some keys are longer than the items of their pool.
TEST(Hash, FollowsItsModel) {
    const OpenPools open(0);
    ItemPool *tables = nullptr, *entries = nullptr, *keys = nullptr, *buckets = nullptr;
    ASSERT_TRUE(hashCreatePools(&tables, &entries, 10, &keys, &buckets));
    Hash* table = hashCreateWithPools(1, tables, entries, keys, buckets);
    std::mt19937 random(7);
    std::map<std::string, void*> model;
    for (uintptr_t step = 1; step < 10000; ++step) {
        const std::string key = std::to_string(random() % 300);
        void* value = random() % 3 == 0 ? nullptr : number(step);
        const bool present = model.contains(key);
        FailAlloc fail{.after = random() % 4};
        const auto length = static_cast<uint32_t>(random() % 2 * key.size());  // 0: a C string
        const bool put = hashPut(table, key.c_str(), length, 0, true, value);
        allocationsHeal();
        ASSERT_EQ(put, allocationsFailed() == 0 && (value != nullptr || present));
        if (put && value != nullptr) model[key] = value;
        if (value == nullptr) model.erase(key);
        ASSERT_EQ(table->count, model.size());
        const std::string sought = std::to_string(random() % 300);
        ASSERT_EQ(hashFind(table, sought.c_str(), 0, 0),
                  model.contains(sought) ? model[sought] : nullptr);
    }
    hashDestroy(table);
    expectAllGivenBack({tables, entries, keys, buckets});
}

// What a map holds, and what memory fails it, is the message model's.
TEST(I32Map, GivesItsPartsBackToTheirPools) {
    const OpenPools open(0);
    ItemPool *maps = nullptr, *nodes = nullptr, *buckets = nullptr;
    ASSERT_TRUE(i32mapCreatePools(&maps, &nodes, &buckets));
    for (const uint32_t size : {1u, 16u}) {
        I32Map* map = i32mapCreate(size, maps, nodes, buckets);
        for (uint32_t key = 0; key < 80; ++key) {
            const bool grows = key == size;
            const FailAlloc fail{.after = grows ? 0 : kNeverFails};
            EXPECT_EQ(i32mapSet(map, key, key), grows ? kStatusNoMemory : kStatusSuccess);
            if (key == 40) (void)i32mapClear(map);
        }
        i32mapRemove(map, 79);
        EXPECT_EQ(map->count, 38u);
        map->generation = UINT32_MAX;
        EXPECT_EQ(i32mapClear(map), kStatusSuccess);  // the nodes leave their buckets
        EXPECT_EQ(i32mapSet(map, 7, 7), kStatusSuccess);
        i32mapDestroy(map);
    }
    expectAllGivenBack({maps, nodes, buckets});
}

// Keys are multiples of `factor`. A walk gives the entries by ascending bucket and the newest of a
// bucket first; growth turns each bucket round. Memory that fails an insertion changes nothing, and
// one that fails the index leaves the chains.
void followItsModel(uint64_t factor, uint32_t range, uint32_t buckets) {
    SCOPED_TRACE(testing::Message() << "factor " << factor << ", buckets " << buckets);
    using Entry = std::pair<uint64_t, void*>;
    std::mt19937 random(buckets);
    Dict64* dict = dict64Create(buckets);
    uint64_t bucketCount = std::bit_ceil(buckets);
    std::vector<Entry> model;
    const auto bucket = [&](const Entry& entry) { return entry.first & (bucketCount - 1); };
    for (uintptr_t step = 1; step <= 1500; ++step) {
        const uint64_t key = random() % range * factor;
        auto held = std::ranges::find(model, key, &Entry::first);
        const bool isHeld = held != model.end();
        void* value = number(999999);
        ASSERT_EQ(dictFind(dict, key, &value), isHeld ? kStatusSuccess : kStatusNotFound);
        ASSERT_EQ(value, isHeld ? held->second : number(999999));
        if (random() % 3 == 0) {
            ASSERT_EQ(dict64Remove(dict, key, nullptr),
                      isHeld ? kStatusSuccess : kStatusInvalidArgument);
            if (isHeld) model.erase(held);
        } else {
            const FailAlloc fail{.after = step < 150 ? random() % 4 : kNeverFails, .forGood = true};
            const pelmoStatus status = dict64Insert(dict, key, number(step));
            ASSERT_TRUE(status == kStatusSuccess || allocationsFailed() != 0);
            if (dict->bucketCount != bucketCount) {
                bucketCount *= 2;
                std::ranges::reverse(model);
                std::ranges::stable_sort(model, {}, bucket);
            }
            const Entry entry = {key, number(step)};
            if (isHeld) *std::ranges::find(model, key, &Entry::first) = entry;
            if (!isHeld && status == kStatusSuccess)
                model.insert(std::ranges::lower_bound(model, bucket(entry), {}, bucket), entry);
        }
        ASSERT_EQ(dict->count, model.size());
        ASSERT_LE(dict->count, dict->bucketCount);
        if (step % 50 != 0 && model.size() >= 6) continue;
        Dict64Iterator iterator;
        dict64IterInit(dict, &iterator);
        Entry entry;
        size_t place = 0;
        while (dict64IterNext(&iterator, &entry.first, &entry.second)) {
            ASSERT_EQ(entry, model.at(place++));
            if (step % 400 != 0 || place % 3 != 0) continue;
            dict64IterRemove(&iterator);
            dict64IterRemove(&iterator);  // a second removal has nothing to remove
            model.erase(model.begin() + static_cast<ptrdiff_t>(--place));
        }
        ASSERT_EQ(place, model.size());
    }
    const bool oneChain = factor >> 32 != 0;  // for each bucket: a search without an index is long
    EXPECT_TRUE(!oneChain || dict->index.slots != nullptr);
    dict64Destroy(dict);
}

TEST(Dictionary, KeepsItsEntriesAndTheirOrderWhateverTheKeys) {
    const std::pair<uint64_t, uint32_t> keys[] = {
        {1, 12}, {1, 700}, {0x10000, 60}, {uint64_t{1} << 32, 400}};
    for (const auto& [factor, range] : keys) {
        for (const uint32_t buckets : {1u, 3u, 8u, 256u}) {
            followItsModel(factor, range, buckets);
        }
    }
}

// By tens, so that equal items differ; without a comparator by address.
TEST(Dpa, StaysSortedWithTheNewestAfterItsEquals) {
    const DpaComparator byTens = [](const void* key, const void* item) {
        const auto left = reinterpret_cast<uintptr_t>(key) / 10;
        const auto right = reinterpret_cast<uintptr_t>(item) / 10;
        return left < right ? -1 : left > right;
    };
    for (const DpaComparator comparator : {byTens, DpaComparator{nullptr}}) {
        const auto rank = [&](uintptr_t value) { return comparator ? value / 10 : value; };
        std::mt19937 random(1);
        const std::unique_ptr<Dpa, decltype(&dpaDestroy)> array(dpaCreate(0), dpaDestroy);
        Numbers model;
        for (int step = 0; step < 1000; ++step) {
            const uintptr_t value = 1 + random() % 250;
            ASSERT_TRUE(dpaInsertSorted(array.get(), number(value), comparator));
            model.insert(std::ranges::upper_bound(model, rank(value), {}, rank), value);
            ASSERT_EQ(numbersIn(array.get()), model);
        }
    }
}

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
            const auto add = front ? EntryRing_PushFront : EntryRing_PushBack;
            const bool pushed = add(ring, number(step));
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
