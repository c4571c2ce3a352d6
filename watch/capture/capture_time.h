// Times as people give them on the command line: ISO 8601, local unless a zone is given, or a time
// of day alone, whose day is found from a capture's first frame.
//
//     2026-11-25T14:03   2026-11-25 14:03:20.5   2026-11-25T14:03:20Z   2026-11-25T14:03+01:00
//     2026-11-25   14:03   14:03:20
//
// Pure but for the system's time zone.

#pragma once

#include <cstdint>

struct CaptureTime {
    bool isTimeOfDay;
    int64_t seconds;  // since 1970, or since local midnight
    uint32_t nanoseconds;
};

// False where the text is none of the forms above, or no such day or time exists.
[[nodiscard]] bool captureTimeParse(const char* text, CaptureTime* out);

// Seconds since 1970: a time of day is of the local day of `nearSeconds`, or of the next day where
// it would lie more than `leewaySeconds` before that.
[[nodiscard]] int64_t captureTimeResolve(const CaptureTime& time,
                                         int64_t nearSeconds,
                                         int64_t leewaySeconds);
