#include "lib/base/clock.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <utility>

#include "tests/support/test.h"

namespace {

TEST(Clock, CutsToMillisecondsAnd32Bits) {
    const struct {
        int64_t seconds, nanoseconds;
        TimeSpec expected;
    } cases[] = {
        {0, 999'999, {0, 0}},
        {INT32_MAX, 999'999'999, {INT32_MAX, 999'000'000}},
        {int64_t{INT32_MAX} + 1, 0, {INT32_MIN, 0}},
    };
    for (const auto& c : cases) {
        const FixedClock clock(c.seconds, c.nanoseconds);
        TimeSpec now;
        clockNow(&now);
        EXPECT_EQ(now, c.expected);
        double seconds;
        clockSeconds(&seconds);
        EXPECT_DOUBLE_EQ(seconds, c.expected.seconds + c.expected.nanoseconds / 1e9);
    }
}

// An hour ahead of UTC, two in summer.
TEST(Clock, SplitsLocalTime) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const std::pair<int64_t, CalendarTime> cases[] = {
        {1709247599, {2024, 2, 29, 23, 59, 59}},
        {1711846800, {2024, 3, 31, 3, 0, 0}},  // summer begins
        {4294967296, {2106, 2, 7, 7, 28, 16}},
        {INT64_MAX, {}},  // a year that no calendar holds
    };
    for (const auto& [time, expected] : cases) {
        CalendarTime calendar{1, 1, 1, 1, 1, 1};
        calendarFrom(time, &calendar);
        EXPECT_EQ(calendar, expected) << time;
    }
}

TEST(Clock, SteadySecondsGoWithTheMonotonicClockAlone) {
    FixedClock wall(1'700'000'000);
    FixedMonotonic steady(100);
    const double start = clockSteadySeconds();
    wall.set(1'700'003'600);
    EXPECT_EQ(clockSteadySeconds(), start);
    wall.set(0);
    steady.set(101, 1'999'999);
    EXPECT_NEAR(clockSteadySeconds(), start + 1.001, 1e-6);
}

}  // namespace
