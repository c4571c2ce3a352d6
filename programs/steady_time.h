// The clock that never steps, in nanoseconds.

#pragma once

#include <chrono>
#include <cstdint>

inline constexpr int64_t kSecond = 1'000'000'000;
inline constexpr int64_t kMillisecond = 1'000'000;
inline constexpr int64_t kNever = INT64_MAX;  // later than any time

[[nodiscard]] inline int64_t steadyNow() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// `seconds` after `now`, or kNever if that is out of range.
[[nodiscard]] inline int64_t steadyAfter(int64_t now, double seconds) {
    const double mostSeconds = static_cast<double>(kNever - now) / kSecond;
    if (seconds >= mostSeconds * 0.999) return kNever;
    return now + static_cast<int64_t>(seconds * static_cast<double>(kSecond));
}

[[nodiscard]] inline double steadySeconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / static_cast<double>(kSecond);
}
