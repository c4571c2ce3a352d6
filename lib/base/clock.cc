#include "lib/base/clock.h"

#include <atomic>

#include "lib/base/text.h"

namespace {

timespec systemTime() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

// Relaxed: a source stands for itself, nothing else is handed over with it.
constinit std::atomic<ClockSource> source = systemTime;

timespec currentTime() {
    return source.load(std::memory_order_relaxed)();
}

}  // namespace

void clockNow(TimeSpec* out) {
    const timespec now = currentTime();
    const auto milliseconds = static_cast<uint32_t>(now.tv_nsec / 1'000'000);
    *out = {static_cast<int32_t>(now.tv_sec), milliseconds * 1'000'000};
}

void clockSeconds(double* out) {
    TimeSpec now;
    clockNow(&now);
    *out = now.nanoseconds / 1e9 + now.seconds;
}

void calendarNow(CalendarTime* out) {
    calendarFrom(currentTime().tv_sec, out);
}

void calendarFrom(int64_t time, CalendarTime* out) {
    *out = {};
    const time_t seconds = time;
    tm local;
    if (localtime_r(&seconds, &local) == nullptr) return;
    *out = {
        .year = static_cast<uint32_t>(int64_t{local.tm_year} + 1900),
        .month = static_cast<uint8_t>(local.tm_mon + 1),
        .day = static_cast<uint8_t>(local.tm_mday),
        .hour = static_cast<uint8_t>(local.tm_hour),
        .minute = static_cast<uint8_t>(local.tm_min),
        .second = static_cast<uint8_t>(local.tm_sec),
    };
}

void timeText(char* buffer, size_t sizeBytes) {
    CalendarTime now;
    calendarNow(&now);
    boundedFormat(buffer, sizeBytes, "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(now.year),
                  now.month, now.day, now.hour, now.minute, now.second);
}

ClockSource clockSetSource(ClockSource wanted) {
    const ClockSource former = source.exchange(wanted != nullptr ? wanted : systemTime);
    return former == systemTime ? nullptr : former;
}
