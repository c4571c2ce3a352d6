#include "watch/capture/capture_time.h"

#include <ctime>
#include <string_view>

namespace {

// Takes characters off the front of the text.
struct Reader {
    std::string_view left;

    bool take(char wanted) {
        if (left.empty() || left.front() != wanted) return false;
        left.remove_prefix(1);
        return true;
    }

    // Exactly so many digits.
    bool number(int digits, int least, int most, int* out) {
        int value = 0;
        if (left.size() < static_cast<size_t>(digits)) return false;
        for (int at = 0; at < digits; ++at) {
            const char digit = left[static_cast<size_t>(at)];
            if (digit < '0' || digit > '9') return false;
            value = value * 10 + (digit - '0');
        }
        left.remove_prefix(static_cast<size_t>(digits));
        *out = value;
        return value >= least && value <= most;
    }
};

bool readFraction(Reader& reader, uint32_t* nanoseconds) {
    uint32_t unit = 100'000'000;
    size_t digits = 0;
    for (; !reader.left.empty() && reader.left[0] >= '0' && reader.left[0] <= '9'; ++digits) {
        *nanoseconds += unit * static_cast<uint32_t>(reader.left[0] - '0');
        unit /= 10;
        reader.left.remove_prefix(1);
    }
    return digits > 0;
}

// hh:mm[:ss[.fraction]]; second 60 is a leap second's.
bool readTimeOfDay(Reader& reader, int* secondOfDay, uint32_t* nanoseconds) {
    int hour = 0, minute = 0, second = 0;
    if (!reader.number(2, 0, 23, &hour) || !reader.take(':')) return false;
    if (!reader.number(2, 0, 59, &minute)) return false;
    if (reader.take(':')) {
        if (!reader.number(2, 0, 60, &second)) return false;
        if ((reader.take('.') || reader.take(',')) && !readFraction(reader, nanoseconds)) {
            return false;
        }
    }
    *secondOfDay = (hour * 60 + minute) * 60 + second;
    return true;
}

// Z or +hh:mm or +hhmm or +hh, as seconds east of UTC.
bool readZone(Reader& reader, int* eastSeconds) {
    *eastSeconds = 0;
    if (reader.take('Z') || reader.take('z')) return true;
    const bool isWest = !reader.left.empty() && reader.left[0] == '-';
    if (!reader.take('+') && !reader.take('-')) return false;
    int hours = 0, minutes = 0;
    if (!reader.number(2, 0, 14, &hours)) return false;
    const bool hasColon = reader.take(':');
    if ((hasColon || !reader.left.empty()) && !reader.number(2, 0, 59, &minutes)) return false;
    *eastSeconds = (hours * 60 + minutes) * 60 * (isWest ? -1 : 1);
    return true;
}

// False where the calendar has no such day.
bool readDate(Reader& reader, tm* date) {
    int year = 0, month = 0, day = 0;
    if (!reader.number(4, 1900, 9999, &year) || !reader.take('-')) return false;
    if (!reader.number(2, 1, 12, &month) || !reader.take('-')) return false;
    if (!reader.number(2, 1, 31, &day)) return false;
    *date = {};
    date->tm_year = year - 1900;
    date->tm_mon = month - 1;
    date->tm_mday = day;
    tm same = *date;
    (void)timegm(&same);
    return same.tm_mday == day;
}

// The local clock's own view of summer time is asked for.
int64_t localSeconds(tm date, int64_t secondOfDay) {
    date.tm_hour = static_cast<int>(secondOfDay / 3600);
    date.tm_min = static_cast<int>(secondOfDay / 60 % 60);
    date.tm_sec = static_cast<int>(secondOfDay % 60);
    date.tm_isdst = -1;
    return mktime(&date);
}

}  // namespace

bool captureTimeParse(const char* text, CaptureTime* out) {
    Reader reader = {text};
    int secondOfDay = 0;
    *out = {};
    if (reader.left.size() >= 3 && reader.left[2] == ':') {
        out->isTimeOfDay = true;
        const bool isSound = readTimeOfDay(reader, &secondOfDay, &out->nanoseconds);
        out->seconds = secondOfDay;
        return isSound && reader.left.empty();
    }
    tm date;
    if (!readDate(reader, &date)) return false;
    if (!reader.left.empty()) {
        if (!reader.take('T') && !reader.take(' ') && !reader.take('t')) return false;
        if (!readTimeOfDay(reader, &secondOfDay, &out->nanoseconds)) return false;
    }
    if (reader.left.empty()) {
        out->seconds = localSeconds(date, secondOfDay);
        return true;
    }
    int eastSeconds = 0;
    if (!readZone(reader, &eastSeconds) || !reader.left.empty()) return false;
    out->seconds = timegm(&date) + secondOfDay - eastSeconds;
    return true;
}

int64_t captureTimeResolve(const CaptureTime& time, int64_t nearSeconds, int64_t leewaySeconds) {
    if (!time.isTimeOfDay) return time.seconds;
    const time_t near = nearSeconds;
    tm date = {};
    if (localtime_r(&near, &date) == nullptr) return time.seconds;
    const int64_t seconds = localSeconds(date, time.seconds);
    if (seconds >= nearSeconds - leewaySeconds) return seconds;
    ++date.tm_mday;
    return localSeconds(date, time.seconds);
}
