#include "lib/base/timestamp.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

namespace {

using Fields = std::array<int64_t, 6>;

constexpr int64_t kDay = 86400;
constexpr int64_t kYear1 = -62135596800;  // 0001-01-01

Fields split(int64_t seconds) {
    int64_t year;
    int32_t month, day, hour, minute, second;
    dateTimeSplit(seconds, &year, &month, &day, &hour, &minute, &second);
    return {year, month, day, hour, minute, second};
}

TEST(DateTime, AgreesWithTheSystemsCalendarFromYear1On) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<int64_t> any(kYear1, 253402300800 * 100);
    for (int i = 0; i < 20000; ++i) {
        const time_t seconds = any(random);
        tm utc;
        ASSERT_NE(gmtime_r(&seconds, &utc), nullptr);
        const Fields expected = {utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                                 utc.tm_hour,        utc.tm_min,     utc.tm_sec};
        ASSERT_EQ(split(seconds), expected) << seconds;
    }
    EXPECT_EQ(split(kYear1), (Fields{1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(split(kYear1 - 1), (Fields{-1, 12, 31, 23, 59, 59}));
}

// The calendar's gap at year 0 and its mirrored leap years: each day is the day before's next.
TEST(DateTime, CountsDaysThroughYearZero) {
    Fields before = split(kYear1 - 900 * 366 * kDay);
    for (int64_t day = -900 * 366 + 1; day < 1000; ++day) {
        const Fields now = split(kYear1 + day * kDay);
        const auto [year, month, dayOfMonth, hour, minute, second] = before;
        const bool mayEnd = dayOfMonth >= (month == 2 ? 28 : 30);
        const Fields sameMonth = {year, month, dayOfMonth + 1, 0, 0, 0};
        const Fields nextMonth = {year, month + 1, 1, 0, 0, 0};
        const Fields nextYear = {year == -1 ? 1 : year + 1, 1, 1, 0, 0, 0};
        ASSERT_TRUE(now == sameMonth || (mayEnd && now == nextMonth) ||
                    (month == 12 && dayOfMonth == 31 && now == nextYear))
            << day;
        before = now;
    }
    // The farthest times, whose difference from any other doesn't fit.
    EXPECT_EQ(split(INT64_MIN), (Fields{-292277022658, 1, 26, 8, 29, 52}));
    EXPECT_EQ(split(INT64_MAX), (Fields{292277026596, 12, 4, 15, 30, 7}));
}

TEST(DateTime, TextFitsItsRoom) {
    const struct {
        pelmoMsgDateTime value;
        size_t sizeBytes;
        std::string expected;
    } cases[] = {
        {{0, 0}, 64, "1970-01-01 00:00:00Z"},
        {{0, 999'000'000}, 64, "1970-01-01 00:00:00.999000000Z"},
        {{kYear1 - 1, 0}, 64, "-001-12-31 23:59:59Z"},
        {{253402300800, 0}, 64, "10000-01-01 00:00:00Z"},
        {{0, 0}, 21, "1970-01-01 00:00:00Z"},
        {{0, 0}, 20, "1970-01-01 00:00:00"},
        {{0, 1}, 31, "1970-01-01 00:00:00.000000001Z"},
        {{0, 1}, 30, "1970-01-01 00:00:00.000000001"},
        {{0, 1}, 1, ""},
    };
    for (const auto& c : cases) {
        char text[65];
        std::memset(text, '#', sizeof text);
        char* cursor = text;
        dateTimeToText(c.value, &cursor, c.sizeBytes);
        EXPECT_EQ(std::string(text), c.expected);
        EXPECT_EQ(cursor, text + c.expected.size());
        EXPECT_EQ(text[c.sizeBytes], '#');
    }
    char* cursor = nullptr;
    dateTimeToText({0, 0}, &cursor, 0);
    EXPECT_EQ(cursor, nullptr);
}

}  // namespace
