#include "lib/containers/dict.h"

#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

using Entry = std::pair<uint64_t, void*>;
using Entries = std::vector<Entry>;

// What the header promises, taken by its word: the entries as a walk gives them, by ascending
// bucket and the newest of a bucket first.
struct Model {
    auto find(uint64_t key) { return std::ranges::find(all, key, &Entry::first); }

    void add(uint64_t key, void* value) {
        const auto bucket = [this](const Entry& entry) { return entry.first & (bucketCount - 1); };
        if (all.size() == bucketCount) {
            bucketCount *= 2;
            std::ranges::reverse(all);
            std::ranges::stable_sort(all, {}, bucket);
        }
        const Entry entry = {key, value};
        all.insert(std::ranges::lower_bound(all, bucket(entry), {}, bucket), entry);
    }

    uint64_t bucketCount;
    Entries all = {};
};

// Walks through all entries, and removes one in `oneIn` on the way.
void walk(Dict64* dict, Model& model, size_t oneIn, size_t random) {
    const Entries before = model.all;
    Entries seen;
    Dict64Iterator iterator;
    uint64_t key = 0;
    void* value = nullptr;
    dict64IterInit(dict, &iterator);
    while (dict64IterNext(&iterator, &key, &value)) {
        seen.push_back({key, value});
        if ((seen.size() + random) % oneIn != 0) continue;
        dict64IterRemove(&iterator);
        dict64IterRemove(&iterator);  // a second removal has nothing to remove
        model.all.erase(model.find(key));
    }
    EXPECT_FALSE(dict64IterNext(&iterator, nullptr, nullptr));
    EXPECT_EQ(seen, before);
}

// Keys are multiples of `factor`.
void followItsModel(uint64_t factor, uint32_t range, uint32_t buckets) {
    SCOPED_TRACE(testing::Message() << "factor " << factor << ", buckets " << buckets);
    std::mt19937 random(buckets);
    Dict64* dict = dict64Create(buckets);
    void* const none = number(999999);
    Model model{.bucketCount = buckets == 3 ? 4 : buckets};
    for (uintptr_t step = 1; step <= 1500; ++step) {
        const uint64_t key = random() % range * factor;
        auto held = model.find(key);
        const bool isHeld = held != model.all.end();
        if (random() % 3 != 0) {
            ASSERT_EQ(dict64Insert(dict, key, number(step)), kStatusSuccess);
            if (isHeld) held->second = number(step);
            if (!isHeld) model.add(key, number(step));
        } else {
            void* value = none;
            ASSERT_EQ(dict64Remove(dict, key, &value),
                      isHeld ? kStatusSuccess : kStatusInvalidArgument);
            ASSERT_EQ(value, isHeld ? held->second : none);
            if (isHeld) model.all.erase(held);
        }
        held = model.find(key);
        void* value = none;
        ASSERT_EQ(dictFind(dict, key, &value),
                  held == model.all.end() ? kStatusNotFound : kStatusSuccess);
        ASSERT_EQ(value, held == model.all.end() ? none : held->second);
        ASSERT_EQ(dict->count, model.all.size());
        ASSERT_EQ(dict->bucketCount, model.bucketCount);
        if (step % 50 == 0 || model.all.size() < 6) walk(dict, model, 100000, 0);
        if (step % 400 == 0) walk(dict, model, 3, random() % 3);
    }
    dict64Destroy(dict);
}

TEST(Dictionary, KeepsItsEntriesAndTheirOrderWhateverTheKeys) {
    const std::pair<uint64_t, uint32_t> keys[] = {
        {1, 12}, {1, 700}, {0x10000, 60}, {uint64_t{1} << 32, 200}, {0x9e3779b97f4a7c15u, 300}};
    for (const auto& [factor, range] : keys) {
        for (const uint32_t buckets : {1u, 3u, 8u, 256u}) {
            followItsModel(factor, range, buckets);
        }
    }
    Dict32* dict = dict32Create(4);
    EXPECT_EQ(dict32Insert(dict, 1, number(1)), kStatusSuccess);
    EXPECT_EQ(dict32Insert(dict, 1, number(2)), kStatusNotPermitted);
    dict32Destroy(dict);
}

TEST(Dictionary, GoesWithoutItsIndexWhereMemoryFails) {
    const std::unique_ptr<Dict64, void (*)(Dict64*)> dict(dict64Create(256), dict64Destroy);
    uint64_t key = 0;
    const auto insertUntil = [&](bool indexed, size_t allocationsThatSucceed) {
        for (; (dict->index.slots != nullptr) != indexed && key < 1000; ++key) {
            FailAlloc fail{.after = allocationsThatSucceed, .forGood = true};
            EXPECT_EQ(dict64Insert(dict.get(), key << 32, number(key)), kStatusSuccess);
        }
    };
    insertUntil(true, kNeverFails);
    EXPECT_LT(key, 10u);    // a walk of so many is long
    insertUntil(false, 1);  // an index that can't grow is given up, the entries stay
    EXPECT_EQ(dict->index.count, 0u);
    const uint64_t givenUp = key;
    insertUntil(true, kNeverFails);
    EXPECT_EQ(key, 2 * givenUp);  // not tried at every insertion
    for (uint64_t i = 0; i < key; ++i) {
        EXPECT_EQ(dict64Find(dict.get(), i << 32, nullptr), kStatusSuccess);
    }
}

}  // namespace
