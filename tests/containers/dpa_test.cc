#include "lib/containers/dpa.h"

#include <algorithm>
#include <memory>
#include <random>

#include "tests/support/container_values.h"

namespace {

using Array = std::unique_ptr<Dpa, decltype(&dpaDestroy)>;

Array make(const Numbers& numbers, uint32_t capacity = 1) {
    Array array(dpaCreate(capacity), dpaDestroy);
    for (const uintptr_t value : numbers) {
        EXPECT_TRUE(dpaAppend(array.get(), number(value)));
    }
    return array;
}

TEST(Dpa, DoublesWhenFullAndGrowsByTheSourceOtherwise) {
    const Array array = make({}, 0);
    for (uintptr_t i = 1; i <= 5; ++i) {
        EXPECT_TRUE(dpaAppend(array.get(), number(i)));
        EXPECT_EQ(array->capacity, i <= 2 ? i : i <= 4 ? 4 : 8);
    }
    EXPECT_FALSE(dpaAppend(array.get(), nullptr));

    EXPECT_FALSE(dpaAppendAll(array.get(), nullptr));
    EXPECT_TRUE(dpaAppendAll(array.get(), make({6, 7, 8}).get()));
    EXPECT_EQ(array->capacity, 8u);
    EXPECT_TRUE(dpaAppendAll(array.get(), make({9, 10, 11}).get()));
    EXPECT_EQ(array->capacity, 11u);
    EXPECT_EQ(numbersIn(array.get()), (Numbers{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_TRUE(dpaAppendAll(array.get(), array.get()));
    EXPECT_EQ(array->count, 22u);
    EXPECT_EQ(array->items[21], number(11));

    const std::pair<uint32_t, uint32_t> reserved[] = {{3, 22}, {23, 44}, {100, 100}};
    for (const auto& [wanted, capacity] : reserved) {
        EXPECT_TRUE(dpaReserve(array.get(), wanted));
        EXPECT_EQ(array->capacity, capacity);
    }
    EXPECT_EQ(array->count, 22u);
}

// Ordered by tens, so that equal items can be told apart.
TEST(Dpa, StaysSortedWithTheNewestBehindItsEquals) {
    const auto tens = [](uintptr_t value) { return value / 10; };
    const DpaComparator byTens = [](const void* key, const void* item) {
        const auto left = reinterpret_cast<uintptr_t>(key) / 10;
        const auto right = reinterpret_cast<uintptr_t>(item) / 10;
        return left < right ? -1 : left > right;
    };
    std::mt19937 random(1);
    const Array array = make({});
    Numbers model;
    for (int step = 0; step < 4000; ++step) {
        const uintptr_t value = 1 + random() % 250;
        const auto equal = std::ranges::equal_range(model, tens(value), {}, tens);
        const int32_t found = dpaSearch(array.get(), number(value), byTens);
        const int64_t first = equal.begin() - model.begin();
        ASSERT_TRUE(equal.empty() ? found == ~first : found >= first);
        ASSERT_LT(found, equal.end() - model.begin());
        if (random() % 2 == 0) {
            ASSERT_TRUE(dpaInsertSorted(array.get(), number(value), byTens));
            model.insert(equal.end(), value);
        } else {
            ASSERT_EQ(dpaRemoveSorted(array.get(), number(value), byTens), found);
            if (found >= 0) model.erase(model.begin() + found);
        }
        ASSERT_EQ(numbersIn(array.get()), model);
    }
    EXPECT_FALSE(dpaInsertSorted(array.get(), nullptr, nullptr));
    EXPECT_EQ(dpaSearch(make({10, 20, 30}).get(), number(30), nullptr), 2);
    EXPECT_EQ(dpaSearch(make({10, 20, 30}).get(), number(9), nullptr), ~0);
}

TEST(Dpa, RemovesByMovingTheLastOrByClosingTheGap) {
    const Array array = make({1, 2, 3, 4, 5});
    EXPECT_EQ(dpaRemoveValue(array.get(), number(9)), ~5);
    EXPECT_EQ(dpaRemoveValue(array.get(), number(2)), 1);
    EXPECT_EQ(numbersIn(array.get()), (Numbers{1, 5, 3, 4}));
    EXPECT_EQ(dpaRemoveValue(array.get(), number(4)), 3);
    EXPECT_EQ(array->items[3], nullptr);

    EXPECT_FALSE(dpaRemoveAt(array.get(), 3));
    EXPECT_TRUE(dpaRemoveAt(array.get(), 0));
    EXPECT_EQ(numbersIn(array.get()), (Numbers{5, 3}));
}

}  // namespace
