#include "lib/base/timestamp.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

#include "lib/base/clock.h"

namespace {

constexpr int64_t kSecondsPerDay = 86400;

// Days of the year before each month.
constexpr int32_t kMonthStarts[2][12] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335},
};

bool isLeapYear(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// The arithmetic counts with a year 0, which the calendar doesn't have.
int64_t yearShown(int64_t year) {
    return year < 1 ? year - 1 : year;
}

int64_t leapYearsUpTo(int64_t year) {
    return year / 4 - year / 100 + year / 400;
}

// Turns days since the start of 1970 into a year and the days since its start. Each guess leaves a
// remainder some thousand times smaller.
int64_t splitYear(int64_t& days) {
    int64_t year = 1970;
    while (days < 0 || days >= (isLeapYear(yearShown(year)) ? 366 : 365)) {
        const int64_t guess = year + days / 365 - (days < 0 ? 1 : 0);
        days -= (guess - year) * 365 + leapYearsUpTo(guess - 1) - leapYearsUpTo(year - 1);
        year = guess;
    }
    return yearShown(year);
}

// The digits of a number, with zeros before it.
char* putDigits(char* at, uint32_t number, int digits) {
    for (int digit = digits; digit-- > 0; number /= 10) {
        at[digit] = static_cast<char>('0' + number % 10);
    }
    return at + digits;
}

// At least four characters, with the sign.
char* putYear(char* at, int64_t year) {
    if (year < 0) *at++ = '-';
    const auto number = static_cast<uint64_t>(year < 0 ? -year : year);
    for (uint64_t least = year < 0 ? 100 : 1000; least > number && least > 1; least /= 10) {
        *at++ = '0';
    }
    return std::to_chars(at, at + std::numeric_limits<uint64_t>::digits10 + 1, number).ptr;
}

char* putPart(char* at, char before, int32_t number) {
    *at++ = before;
    return putDigits(at, static_cast<uint32_t>(number), 2);
}

}  // namespace

void dateTimeSplit(int64_t seconds,
                   int64_t* year,
                   int32_t* month,
                   int32_t* day,
                   int32_t* hour,
                   int32_t* minute,
                   int32_t* second) {
    int64_t days = seconds / kSecondsPerDay;
    auto secondOfDay = static_cast<int32_t>(seconds % kSecondsPerDay);
    if (secondOfDay < 0) {
        secondOfDay += static_cast<int32_t>(kSecondsPerDay);
        --days;
    }
    *year = splitYear(days);

    const int32_t(&starts)[12] = kMonthStarts[isLeapYear(*year)];
    int32_t index = 11;
    while (starts[index] > days) {
        --index;
    }
    *month = index + 1;
    *day = static_cast<int32_t>(days) - starts[index] + 1;
    *hour = secondOfDay / 3600;
    *minute = secondOfDay % 3600 / 60;
    *second = secondOfDay % 60;
}

void dateTimeToText(const pelmoMsgDateTime& value, char** cursor, size_t sizeBytes) {
    if (sizeBytes == 0) return;
    int64_t year;
    int32_t month, day, hour, minute, second;
    dateTimeSplit(value.seconds, &year, &month, &day, &hour, &minute, &second);

    char whole[kTimeStampBytes];
    char* at = putYear(whole, year);
    at = putPart(at, '-', month);
    at = putPart(at, '-', day);
    at = putPart(at, ' ', hour);
    at = putPart(at, ':', minute);
    at = putPart(at, ':', second);
    if (value.nanoseconds != 0) {
        *at++ = '.';
        at = putDigits(at, value.nanoseconds, value.nanoseconds < 1000000000 ? 9 : 10);
    }

    char* const text = *cursor;
    size_t length = std::min(static_cast<size_t>(at - whole), sizeBytes - 1);
    std::memcpy(text, whole, length);
    text[length] = '\0';
    if (sizeBytes - length >= 2) {
        text[length++] = 'Z';
        text[length] = '\0';
    }
    *cursor = text + length;
}

uint32_t dateTimeNow(pelmoMsgDateTime* out) {
    TimeSpec now;
    clockNow(&now);
    *out = {now.seconds, now.nanoseconds};
    return 0;
}

uint32_t timeStampTexts(char* localText, char* utcText) {
    if (localText != nullptr) timeText(localText, kTimeStampBytes);
    if (utcText != nullptr) {
        pelmoMsgDateTime now;
        dateTimeNow(&now);
        dateTimeToText(now, &utcText, kTimeStampBytes);
    }
    return 0;
}
