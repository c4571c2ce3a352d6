// A date-time as messages carry it, in UTC.

#pragma once

#include <cstdint>

struct pelmoMsgDateTime {
    int64_t seconds;  // since 1970-01-01 00:00:00 UTC
    uint32_t nanoseconds;
};
