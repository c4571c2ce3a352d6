#include "lib/containers/dpa.h"

#include <gtest/gtest.h>

#include <memory>

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

// Orders by tens, so that equal items can be told apart.
int byTens(const void* key, const void* item) {
    const auto left = reinterpret_cast<uintptr_t>(key) / 10;
    const auto right = reinterpret_cast<uintptr_t>(item) / 10;
    return left < right ? -1 : left > right;
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

    EXPECT_TRUE(dpaReserve(array.get(), 3));
    EXPECT_EQ(array->capacity, 22u);
    EXPECT_TRUE(dpaReserve(array.get(), 23));
    EXPECT_EQ(array->capacity, 44u);
    EXPECT_TRUE(dpaReserve(array.get(), 100));
    EXPECT_EQ(array->capacity, 100u);
    EXPECT_EQ(array->count, 22u);
}

TEST(Dpa, FindsThePlaceInSortedItems) {
    const Array array = make({10, 20, 30, 50});
    const struct {
        uintptr_t key;
        int32_t place;
    } cases[] = {{10, 0}, {50, 3}, {9, ~0}, {11, ~1}, {40, ~3}, {60, ~4}};
    for (const auto& [key, place] : cases) {
        EXPECT_EQ(dpaSearch(array.get(), number(key), nullptr), place) << key;
    }
    EXPECT_EQ(dpaSearch(array.get(), number(35), byTens), 2);
    EXPECT_EQ(dpaSearch(array.get(), number(45), byTens), ~3);
    EXPECT_EQ(dpaSearch(make({}).get(), number(1), nullptr), -1);
}

TEST(Dpa, InsertsBehindAllThatIsEqual) {
    const struct {
        Numbers before;
        uintptr_t value;
        Numbers after;
    } cases[] = {
        {{}, 10, {10}},
        {{5, 10, 11, 12, 20}, 19, {5, 10, 11, 12, 19, 20}},
        {{10, 20}, 5, {5, 10, 20}},
        {{10, 20}, 35, {10, 20, 35}},
    };
    for (const auto& [before, value, after] : cases) {
        const Array array = make(before);
        EXPECT_TRUE(dpaInsertSorted(array.get(), number(value), byTens));
        EXPECT_EQ(numbersIn(array.get()), after);
    }
    EXPECT_FALSE(dpaInsertSorted(make({1}).get(), nullptr, nullptr));
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

    const Array sorted = make({10, 20, 30});
    EXPECT_EQ(dpaRemoveSorted(sorted.get(), number(25), nullptr), ~2);
    EXPECT_EQ(dpaRemoveSorted(sorted.get(), number(25), byTens), 1);
    EXPECT_EQ(numbersIn(sorted.get()), (Numbers{10, 30}));
}

}  // namespace
