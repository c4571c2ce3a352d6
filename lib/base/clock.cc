#include "lib/base/clock.h"

#include <atomic>

#include "lib/base/text.h"

namespace {

timespec systemTime() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

timespec monotonicTime() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// Relaxed: no other data is published with a source.
constinit std::atomic<ClockSource> source = systemTime;
constinit std::atomic<ClockSource> monotonicSource = monotonicTime;

timespec currentTime() {
    return source.load(std::memory_order_relaxed)();
}

int64_t inMilliseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

ClockSource replaceSource(std::atomic<ClockSource>& place,
                          ClockSource wanted,
                          ClockSource standard) {
    const ClockSource former = place.exchange(wanted != nullptr ? wanted : standard);
    return former == standard ? nullptr : former;
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

double clockSteadySeconds() {
    const auto look = [] {
        return inMilliseconds(monotonicSource.load(std::memory_order_relaxed)());
    };
    static const int64_t start = inMilliseconds(currentTime()) - look();
    return static_cast<double>(start + look()) / 1000;
}

uint64_t clockMonotonicNanoseconds() {
    const timespec now = monotonicSource.load(std::memory_order_relaxed)();
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
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
    return replaceSource(source, wanted, systemTime);
}

ClockSource clockSetMonotonicSource(ClockSource wanted) {
    return replaceSource(monotonicSource, wanted, monotonicTime);
}
