#include "lib/base/timestamp.h"

#include <gtest/gtest.h>

#include <array>
#include <ctime>
#include <random>
#include <string>
#include <utility>

#include "lib/base/clock.h"

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
}

// There is no year 0, and leap years are mirrored there.
TEST(DateTime, CountsDaysThroughYearZero) {
    const std::pair<int64_t, Fields> cases[] = {
        {kYear1 - 1, {-1, 12, 31, 23, 59, 59}},
        {kYear1 - 365 * kDay, {-1, 1, 1, 0, 0, 0}},
        {kYear1 - 366 * kDay, {-2, 12, 31, 0, 0, 0}},
        {kYear1 - (1461 - 59) * kDay, {-4, 2, 29, 0, 0, 0}},
        {kYear1 - (1461 - 60) * kDay, {-4, 3, 1, 0, 0, 0}},
        {INT64_MIN, {-292277022658, 1, 26, 8, 29, 52}},
        {INT64_MAX, {292277026596, 12, 4, 15, 30, 7}},
    };
    for (const auto& [seconds, expected] : cases) {
        EXPECT_EQ(split(seconds), expected) << seconds;
    }
    CalendarTime none{1, 1, 1, 1, 1, 1};
    calendarFrom(INT64_MAX, &none);  // no calendar holds that year
    EXPECT_EQ(none, CalendarTime());
}

TEST(DateTime, TextIsCutToItsRoom) {
    const std::string text = "-001-12-31 23:59:59.000000001Z";
    for (const size_t sizeBytes : {size_t{1}, text.size(), text.size() + 1}) {
        char room[40] = {};
        char* cursor = room;
        dateTimeToText({kYear1 - 1, 1}, &cursor, sizeBytes);
        EXPECT_EQ(room, text.substr(0, sizeBytes - 1));
        EXPECT_EQ(cursor, room + sizeBytes - 1);
    }
}

}  // namespace
