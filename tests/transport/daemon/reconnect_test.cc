// The wait before a reconnect.

#include "lib/transport/daemon/reconnect.h"

#include <gtest/gtest.h>

namespace {

TEST(Reconnect, WaitsLongerForEachBreakInARow) {
    const struct {
        double now;
        uint32_t random;
        double seconds;
        uint32_t count;
    } rows[] = {
        {1000, 0, 0, 1},     {1001, 99, 0.099, 2}, {1002, 0, 1, 3},     {1061.9, 99, 2.099, 4},
        {1063, 50, 4.05, 5}, {1064, 0, 8, 6},      {1124, 7, 0.007, 1},  // a minute later
        {1125, 0, 0, 2},     {1187, 0, 0, 1},
    };
    BreakRow row = {};
    for (const auto& each : rows) {
        SCOPED_TRACE(each.now);
        EXPECT_DOUBLE_EQ(reconnectDelay(&row, each.now, each.random), each.seconds);
        EXPECT_EQ(row.count, each.count);
    }
    // A count that no program reaches: the shift goes round, and nothing overflows.
    row = {.count = 33, .lastSeconds = 5};
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 0), 2147483648.0);
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 0), 1.0);
    row.count = UINT32_MAX;
    EXPECT_DOUBLE_EQ(reconnectDelay(&row, 5, 3), 0.003);
}

}  // namespace
