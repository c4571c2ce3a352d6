// A date-time as messages carry it, in UTC.
//
// What is added to a message has to have less than a second of nanoseconds, of which whole
// microseconds travel. What comes from outside needn't: 24 bits of microseconds tell up to 16
// seconds, of which `nanoseconds` holds what 32 bits do. Text shows the number as it is.

#pragma once

#include <cstdint>

struct pelmoMsgDateTime {
    int64_t seconds;  // since 1970-01-01 00:00:00 UTC
    uint32_t nanoseconds;
};
