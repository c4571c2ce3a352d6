#include "lib/containers/dict.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "tests/support/container_values.h"
#include "tests/support/fail_alloc.h"

namespace {

using Entry = std::pair<uint64_t, void*>;
using Entries = std::vector<Entry>;

// The two kinds behind one set of names.
struct Kind32 {
    using Key = uint32_t;
    using Table = Dict32;
    using Iterator = Dict32Iterator;
    static constexpr auto create = dict32Create;
    static constexpr auto destroy = dict32Destroy;
    static constexpr auto insert = dict32Insert;
    static constexpr auto find = dict32Find;
    static constexpr auto remove = dict32Remove;
    static constexpr auto iterInit = dict32IterInit;
    static constexpr auto iterNext = dict32IterNext;
    static constexpr auto iterRemove = dict32IterRemove;
    static constexpr bool kReplaces = false;
};

struct Kind64 {
    using Key = uint64_t;
    using Table = Dict64;
    using Iterator = Dict64Iterator;
    static constexpr auto create = dict64Create;
    static constexpr auto destroy = dict64Destroy;
    static constexpr auto insert = dict64Insert;
    static constexpr auto find = dict64Find;
    static constexpr auto remove = dict64Remove;
    static constexpr auto iterInit = dict64IterInit;
    static constexpr auto iterNext = dict64IterNext;
    static constexpr auto iterRemove = dict64IterRemove;
    static constexpr bool kReplaces = true;
};

// What the header promises, taken by its word: all buckets, chains with the newest in front.
struct Model {
    explicit Model(uint32_t bucketCount) : buckets(bucketCount) {}

    std::deque<Entry>& chain(uint64_t key) {
        return buckets[static_cast<uint32_t>(key) & (buckets.size() - 1)];
    }

    Entry* find(uint64_t key) {
        for (Entry& entry : chain(key)) {
            if (entry.first == key) return &entry;
        }
        return nullptr;
    }

    void add(uint64_t key, void* value) {
        if (count == buckets.size()) {
            const auto old = std::exchange(buckets, decltype(buckets)(buckets.size() * 2));
            for (const auto& oldChain : old) {
                for (const Entry& entry : oldChain) {
                    chain(entry.first).push_front(entry);
                }
            }
        }
        chain(key).push_front({key, value});
        ++count;
    }

    void remove(uint64_t key) {
        count -=
            std::erase_if(chain(key), [key](const Entry& entry) { return entry.first == key; });
    }

    Entries entries() const {
        Entries all;
        for (const auto& one : buckets) {
            all.insert(all.end(), one.begin(), one.end());
        }
        return all;
    }

    std::vector<std::deque<Entry>> buckets;
    size_t count = 0;
};

template <typename Kind>
using Owned = std::unique_ptr<typename Kind::Table, decltype(Kind::destroy)>;

template <typename Kind>
Owned<Kind> make(uint32_t buckets) {
    return Owned<Kind>(Kind::create(buckets), Kind::destroy);
}

template <typename Kind>
Entries entriesIn(typename Kind::Table* dict) {
    Entries all;
    typename Kind::Iterator iterator;
    typename Kind::Key key{};
    void* value = nullptr;
    Kind::iterInit(dict, &iterator);
    while (Kind::iterNext(&iterator, &key, &value)) {
        all.push_back({key, value});
    }
    EXPECT_FALSE(Kind::iterNext(&iterator, nullptr, nullptr));
    return all;
}

template <typename Kind>
class Dictionary : public testing::Test {};
using Kinds = testing::Types<Kind32, Kind64>;
TYPED_TEST_SUITE(Dictionary, Kinds);

// Visits all, removes some on the way.
template <typename Kind>
void sweep(typename Kind::Table* dict, Model& model, std::mt19937& random) {
    const Entries before = model.entries();
    Entries seen;
    typename Kind::Iterator iterator;
    typename Kind::Key key{};
    void* value = nullptr;
    Kind::iterInit(dict, &iterator);
    while (Kind::iterNext(&iterator, &key, &value)) {
        seen.push_back({key, value});
        if (random() % 3 != 0) continue;
        Kind::iterRemove(&iterator);
        Kind::iterRemove(&iterator);  // a second removal has nothing to remove
        model.remove(key);
    }
    EXPECT_EQ(seen, before);
}

TYPED_TEST(Dictionary, KeepsItsEntriesAndTheirOrderWhateverTheKeys) {
    using Kind = TypeParam;
    using Key = typename Kind::Key;
    const struct {
        const char* name;
        uint64_t factor;  // keys are multiples, cut to the key's width
        uint32_t range;
    } patterns[] = {
        {"dense", 1, 12},
        {"dense, many", 1, 700},
        {"equal low bits", 0x10000, 60},
        {"address without port", sizeof(Key) == 8 ? uint64_t{1} << 32 : 1 << 24, 200},
        {"scattered", 0x9e3779b97f4a7c15u, 300},
    };
    for (const auto& pattern : patterns) {
        for (const uint32_t buckets : {1u, 2u, 3u, 4u, 8u, 256u}) {
            SCOPED_TRACE(testing::Message() << pattern.name << ", buckets " << buckets);
            std::mt19937 random(buckets);
            const Owned<Kind> dict = make<Kind>(buckets);
            Model model(buckets == 3 ? 4 : buckets);
            for (uintptr_t step = 1; step <= 1500; ++step) {
                const auto key = static_cast<Key>(random() % pattern.range * pattern.factor);
                Entry* held = model.find(key);
                void* value = number(999999);
                if (random() % 3 != 0) {
                    const bool refused = held != nullptr && !Kind::kReplaces;
                    ASSERT_EQ(Kind::insert(dict.get(), key, number(step)),
                              refused ? kStatusNotPermitted : kStatusSuccess);
                    if (held == nullptr) model.add(key, number(step));
                    if (held != nullptr && Kind::kReplaces) held->second = number(step);
                } else {
                    ASSERT_EQ(Kind::remove(dict.get(), key, &value),
                              held == nullptr ? kStatusInvalidArgument : kStatusSuccess);
                    ASSERT_EQ(value, held == nullptr ? number(999999) : held->second);
                    model.remove(key);
                }
                held = model.find(key);
                value = number(999999);
                ASSERT_EQ(Kind::find(dict.get(), key, &value),
                          held == nullptr ? kStatusNotFound : kStatusSuccess);
                ASSERT_EQ(value, held == nullptr ? number(999999) : held->second);
                ASSERT_EQ(dict->count, model.count);
                ASSERT_EQ(dict->bucketCount, model.buckets.size());
                ASSERT_TRUE(dict->count <= 4 || dict->headMask == dict->bucketCount - 1);
                if (step % 50 == 0 || model.count < 6) {
                    ASSERT_EQ(entriesIn<Kind>(dict.get()), model.entries());
                }
                if (step % 400 == 0) sweep<Kind>(dict.get(), model, random);
            }
        }
    }
}

TYPED_TEST(Dictionary, AnswersWithoutATable) {
    using Kind = TypeParam;
    EXPECT_EQ(Kind::create(0), nullptr);
    EXPECT_EQ(Kind::create((1u << 31) + 1), nullptr);
    EXPECT_EQ(Kind::find(nullptr, 1, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(Kind::insert(nullptr, 1, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(Kind::remove(nullptr, 1, nullptr), kStatusInvalidArgument);
}

// There is a table for each subject on the bus: what an idle one takes matters.
TEST(Dictionary64, AllocatesNoBucketsWhileItIsSmall) {
    FailAlloc count{.after = kNeverFails};
    const Owned<Kind64> dict = make<Kind64>(256);
    for (uint64_t key = 0; key < 4; ++key) {
        EXPECT_EQ(dict64Insert(dict.get(), key, nullptr), kStatusSuccess);
    }
    EXPECT_EQ(allocationsCounted(), 5u);
    EXPECT_EQ(dict64Insert(dict.get(), 4, nullptr), kStatusSuccess);
    EXPECT_EQ(allocationsCounted(), 7u);
}

TEST(Dictionary64, GoesWithoutItsIndexWhereMemoryFails) {
    const Owned<Kind64> dict = make<Kind64>(256);
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
