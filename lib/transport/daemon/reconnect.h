// How long a broken connection waits before it is made again.
//
// The first two breaks in a row are repaired within 100 ms, the third after a second, and the wait
// doubles while breaks come less than a minute apart. The random part keeps the clients of one
// daemon from coming back all at once.
//
// Threads: pure; the owner of the record serialises.

#pragma once

#include <cstdint>

inline constexpr double kBreakRowSeconds = 60.0;     // breaks closer than this are in a row
inline constexpr uint32_t kReconnectSpreadMs = 100;  // the random part is below this
inline constexpr double kRetrySeconds = 10.0;        // between attempts that fail

struct BreakRow {
    uint32_t count;      // 0 before the first break; wraps around
    double lastSeconds;  // when the last one was
};

// Counts a break at `now` and gives the wait in seconds. `random` is below kReconnectSpreadMs.
[[nodiscard]] double reconnectDelay(BreakRow* row, double now, uint32_t random);
