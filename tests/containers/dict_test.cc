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

template <typename Key>
struct Calls {
    Dict<Key>* (*create)(uint32_t);
    void (*destroy)(Dict<Key>*);
    pelmoStatus (*insert)(Dict<Key>*, Key, void*);
    pelmoStatus (*remove)(Dict<Key>*, Key, void**);
    void (*iterInit)(Dict<Key>*, DictIterator<Key>*);
    bool (*iterNext)(DictIterator<Key>*, Key*, void**);
    void (*iterRemove)(DictIterator<Key>*);
    bool replaces;
};

constexpr Calls<uint32_t> kCalls32 = {dict32Create,     dict32Destroy,  dict32Insert,
                                      dict32Remove,     dict32IterInit, dict32IterNext,
                                      dict32IterRemove, false};
constexpr Calls<uint64_t> kCalls64 = {
    dict64Create,   dict64Destroy,  dict64Insert,     dict64Remove,
    dict64IterInit, dict64IterNext, dict64IterRemove, true};

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
template <typename Key>
void walk(const Calls<Key>& calls, Dict<Key>* dict, Model& model, size_t oneIn, size_t random) {
    const Entries before = model.all;
    Entries seen;
    DictIterator<Key> iterator;
    Key key{};
    void* value = nullptr;
    calls.iterInit(dict, &iterator);
    while (calls.iterNext(&iterator, &key, &value)) {
        seen.push_back({key, value});
        if ((seen.size() + random) % oneIn != 0) continue;
        calls.iterRemove(&iterator);
        calls.iterRemove(&iterator);  // a second removal has nothing to remove
        model.all.erase(model.find(key));
    }
    EXPECT_FALSE(calls.iterNext(&iterator, nullptr, nullptr));
    EXPECT_EQ(seen, before);
}

// Keys are multiples of `factor`, cut to the key's width.
template <typename Key>
void followItsModel(const Calls<Key>& calls, uint64_t factor, uint32_t range, uint32_t buckets) {
    SCOPED_TRACE(testing::Message() << "factor " << factor << ", buckets " << buckets);
    std::mt19937 random(buckets);
    const std::unique_ptr<Dict<Key>, void (*)(Dict<Key>*)> owned(calls.create(buckets),
                                                                 calls.destroy);
    Dict<Key>* dict = owned.get();
    void* const none = number(999999);
    Model model{.bucketCount = buckets == 3 ? 4 : buckets};
    for (uintptr_t step = 1; step <= 1500; ++step) {
        const auto key = static_cast<Key>(random() % range * factor);
        auto held = model.find(key);
        const bool isHeld = held != model.all.end();
        if (random() % 3 != 0) {
            ASSERT_EQ(calls.insert(dict, key, number(step)),
                      isHeld && !calls.replaces ? kStatusNotPermitted : kStatusSuccess);
            if (isHeld && calls.replaces) held->second = number(step);
            if (!isHeld) model.add(key, number(step));
        } else {
            void* value = none;
            ASSERT_EQ(calls.remove(dict, key, &value),
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
        ASSERT_TRUE(dict->count <= 4 || dict->headMask == dict->bucketCount - 1);
        if (step % 50 == 0 || model.all.size() < 6) walk(calls, dict, model, 100000, 0);
        if (step % 400 == 0) walk(calls, dict, model, 3, random() % 3);
    }
}

template <typename Key>
void followItsModel(const Calls<Key>& calls) {
    const uint64_t addressWithoutPort = sizeof(Key) == 8 ? uint64_t{1} << 32 : 1 << 24;
    const std::pair<uint64_t, uint32_t> keys[] = {
        {1, 12}, {1, 700}, {0x10000, 60}, {addressWithoutPort, 200}, {0x9e3779b97f4a7c15u, 300}};
    for (const auto& [factor, range] : keys) {
        for (const uint32_t buckets : {1u, 2u, 3u, 4u, 8u, 256u}) {
            followItsModel(calls, factor, range, buckets);
        }
    }
    EXPECT_EQ(calls.create(0), nullptr);
    EXPECT_EQ(calls.create((1u << 31) + 1), nullptr);
    EXPECT_EQ(dictFind<Key>(nullptr, 1, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(calls.insert(nullptr, 1, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(calls.remove(nullptr, 1, nullptr), kStatusInvalidArgument);
}

TEST(Dictionary, KeepsItsEntriesAndTheirOrderWhateverTheKeys) {
    followItsModel(kCalls32);
    followItsModel(kCalls64);
}

// There is a table for each subject on the bus: what an idle one takes matters.
TEST(Dictionary, AllocatesNoBucketsWhileItIsSmall) {
    FailAlloc count{.after = kNeverFails};
    Dict64* dict = dict64Create(256);
    for (uint64_t key = 0; key < 5; ++key) {
        EXPECT_EQ(allocationsCounted(), key + 1);
        EXPECT_EQ(dict64Insert(dict, key, nullptr), kStatusSuccess);
    }
    EXPECT_EQ(allocationsCounted(), 7u);
    dict64Destroy(dict);
}

TEST(Dictionary, GoesWithoutItsIndexWhereMemoryFails) {
    const std::unique_ptr<Dict64, void (*)(Dict64*)> dict(dict64Create(256), dict64Destroy);
    uint64_t key = 0;
    const auto insertNext = [&](size_t allocationsThatSucceed) {
        FailAlloc fail{.after = allocationsThatSucceed, .forGood = true};
        EXPECT_EQ(dict64Insert(dict.get(), key << 32, number(key)), kStatusSuccess);
        ++key;
    };
    while (dict->index.slots == nullptr) {
        insertNext(kNeverFails);
        ASSERT_LT(key, 10u);  // a walk of so many is long
    }

    // An index that can't grow is given up, the entries stay.
    while (dict->index.slots != nullptr) {
        insertNext(1);
    }
    EXPECT_EQ(dict->index.count, 0u);

    // From here memory would do, but the table doesn't try at every insertion.
    const uint64_t givenUp = key;
    while (key < 2 * givenUp - 1) {
        insertNext(kNeverFails);
        EXPECT_EQ(dict->index.slots, nullptr);
    }
    insertNext(kNeverFails);
    EXPECT_NE(dict->index.slots, nullptr);
    for (uint64_t i = 0; i < key; ++i) {
        EXPECT_EQ(dict64Find(dict.get(), i << 32, nullptr), kStatusSuccess);
    }
}

}  // namespace
