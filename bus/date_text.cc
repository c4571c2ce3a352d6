#include "bus/date_text.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr const char* kNoDate = "not a date-time such as 2024-01-02 03:04:05Z";
constexpr size_t kMostYearDigits = 6;
constexpr size_t kFractionDigits = 9;

// Digits of the text one after the other; `ok` is false from the first thing that isn't as asked.
struct Scan {
    std::string_view rest;
    bool ok = true;
};

bool take(Scan& scan, char wanted) {
    if (scan.rest.empty() || scan.rest.front() != wanted) return false;
    scan.rest.remove_prefix(1);
    return true;
}

void expect(Scan& scan, char wanted) {
    scan.ok = take(scan, wanted) && scan.ok;
}

// So many digits as there are, and the number is asked to be within the bounds.
int64_t takeNumber(Scan& scan, size_t leastDigits, size_t mostDigits, int64_t least, int64_t most) {
    int64_t number = 0;
    size_t digits = 0;
    while (digits < mostDigits && digits < scan.rest.size() && scan.rest[digits] >= '0' &&
           scan.rest[digits] <= '9') {
        number = number * 10 + (scan.rest[digits++] - '0');
    }
    scan.rest.remove_prefix(digits);
    if (digits < leastDigits || number < least || number > most) scan.ok = false;
    return number;
}

bool isLeap(int64_t year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Days of so many years from year 1 on. Ahead of year 1 they repeat in mirror image.
int64_t daysOfYears(int64_t years) {
    return years * 365 + years / 4 - years / 100 + years / 400;
}

// Days from the first of January of year 1.
int64_t daysAhead(int64_t year) {
    return year > 0 ? daysOfYears(year - 1) : -daysOfYears(-year);
}

constexpr int kMonthStarts[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

int64_t takeDay(Scan& scan) {
    const bool isAhead = take(scan, '-');
    const int64_t yearNumber = takeNumber(scan, isAhead ? 3 : 4, kMostYearDigits, 1, INT64_MAX);
    const int64_t year = isAhead ? -yearNumber : yearNumber;
    expect(scan, '-');
    const int64_t month = takeNumber(scan, 2, 2, 1, 12);
    expect(scan, '-');
    if (!scan.ok) return 0;
    const int* starts = &kMonthStarts[isLeap(year) ? 1 : 0][month - 1];
    const int64_t day = takeNumber(scan, 2, 2, 1, starts[1] - starts[0]);
    return daysAhead(year) - daysAhead(1970) + starts[0] + day - 1;
}

int64_t takeTime(Scan& scan) {
    const int64_t hour = takeNumber(scan, 2, 2, 0, 23);
    expect(scan, ':');
    const int64_t minute = takeNumber(scan, 2, 2, 0, 59);
    expect(scan, ':');
    const int64_t second = takeNumber(scan, 2, 2, 0, 59);
    return (hour * 60 + minute) * 60 + second;
}

uint32_t takeFraction(Scan& scan) {
    if (!take(scan, '.')) return 0;
    const size_t before = scan.rest.size();
    int64_t fraction = takeNumber(scan, 1, kFractionDigits, 0, INT64_MAX);
    for (size_t digits = before - scan.rest.size(); digits < kFractionDigits; ++digits) {
        fraction *= 10;
    }
    return static_cast<uint32_t>(fraction);
}

}  // namespace

const char* dateTextParse(std::string_view text, pelmoMsgDateTime& out) {
    Scan scan{text};
    const int64_t days = takeDay(scan);
    scan.ok = (take(scan, ' ') || take(scan, 'T')) && scan.ok;
    const int64_t seconds = takeTime(scan);
    const uint32_t nanoseconds = takeFraction(scan);
    expect(scan, 'Z');
    if (!scan.ok || !scan.rest.empty()) return kNoDate;
    out = {days * 86400 + seconds, nanoseconds};
    return nullptr;
}
