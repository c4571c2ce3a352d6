// The wall clock, the steady clock and the local calendar. All time has steps of a millisecond,
// but for what clockMonotonicNanoseconds returns.
//
// Threads: any.

#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// Since 1970-01-01 00:00:00 UTC. The seconds are cut to 32 bits, as records and packets hold them.
struct TimeSpec {
    int32_t seconds;
    uint32_t nanoseconds;  // whole milliseconds below 1e9, or what a packet's stamp says

    bool operator==(const TimeSpec&) const = default;
};

// Local time.
struct CalendarTime {
    uint32_t year;  // in full
    uint8_t month;  // 1 to 12
    uint8_t day;    // 1 to 31
    uint8_t hour;
    uint8_t minute;
    uint8_t second;

    bool operator==(const CalendarTime&) const = default;
};

void clockNow(TimeSpec* out);
void clockSeconds(double* out);

// Seconds since 1970, as the wall clock showed when the process first asked; from then on they
// follow the monotonic clock and never step. For what is due after a number of seconds, not at a
// time of day.
[[nodiscard]] double clockSteadySeconds();

// The monotonic clock in full, in nanoseconds since some moment of the past: for what is shorter
// than a millisecond.
[[nodiscard]] uint64_t clockMonotonicNanoseconds();

// A time whose year no calendar holds gives all zeros.
void calendarNow(CalendarTime* out);
void calendarFrom(int64_t time, CalendarTime* out);

// The present local time, "2024-02-29 23:59:59", terminated and cut to fit.
void timeText(char* buffer, size_t sizeBytes);

// Where all of the above gets the time from: the system, unless a test puts its own source there.
// Returns the former source; null is the system. Sources are called from any thread.
using ClockSource = timespec (*)();
ClockSource clockSetSource(ClockSource source);

// The same for the monotonic clock beneath the steady one.
ClockSource clockSetMonotonicSource(ClockSource source);
