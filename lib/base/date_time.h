// A date-time as messages carry it, in UTC.
//
// A value added to a message must have less than a second of nanoseconds, of which whole
// microseconds are sent. A received one needn't: 24 bits of microseconds hold up to 16 seconds, of
// which `nanoseconds` keeps what fits 32 bits. Text shows the number as it is.

#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsgDateTime {
    int64_t seconds;  // since 1970-01-01 00:00:00 UTC
    uint32_t nanoseconds;
} pelmoMsgDateTime;

#ifdef __cplusplus
}
#endif
