#include "lib/containers/dpa.h"

#include <algorithm>
#include <memory>
#include <random>

#include "tests/support/container_values.h"

namespace {

// Ordered by tens, so that equal items differ.
TEST(Dpa, StaysSortedWithTheNewestAfterItsEquals) {
    const auto tens = [](uintptr_t value) { return value / 10; };
    const DpaComparator byTens = [](const void* key, const void* item) {
        const auto left = reinterpret_cast<uintptr_t>(key) / 10;
        const auto right = reinterpret_cast<uintptr_t>(item) / 10;
        return left < right ? -1 : left > right;
    };
    std::mt19937 random(1);
    const std::unique_ptr<Dpa, decltype(&dpaDestroy)> array(dpaCreate(0), dpaDestroy);
    Numbers model;
    for (int step = 0; step < 1000; ++step) {
        const uintptr_t value = 1 + random() % 250;
        ASSERT_TRUE(dpaInsertSorted(array.get(), number(value), byTens));
        model.insert(std::ranges::upper_bound(model, tens(value), {}, tens), value);
        ASSERT_EQ(numbersIn(array.get()), model);
    }
}

TEST(Dpa, OrdersByAddressWithoutAComparator) {
    const std::unique_ptr<Dpa, decltype(&dpaDestroy)> array(dpaCreate(0), dpaDestroy);
    for (const uintptr_t value : {2u, 3u, 1u}) {
        ASSERT_TRUE(dpaInsertSorted(array.get(), number(value), nullptr));
    }
    EXPECT_EQ(numbersIn(array.get()), (Numbers{1, 2, 3}));
}

}  // namespace
