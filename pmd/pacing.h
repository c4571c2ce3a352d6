// Pacing: whether a sender is to be held up for those who get what it sends.
//
// A sender waits while even the fastest of its receivers has more than kPaceHighBytes waiting, and
// goes on once that one is down to kPaceLowBytes. It isn't held up for a receiver that takes less
// than kPaceLeastBytes in kPaceTestSeconds: from then on messages pile up for that one, until it is
// cut off.
//
// Threads: pure functions over the owner's record.

#pragma once

#include <cstdint>

inline constexpr uint64_t kPaceHighBytes = uint64_t{4} << 20;
inline constexpr uint64_t kPaceLowBytes = uint64_t{1} << 20;
inline constexpr uint64_t kPaceLeastBytes = uint64_t{256} << 10;
inline constexpr double kPaceTestSeconds = 0.25;

// A wait that is under way.
struct Pace {
    uint64_t waitingBytes;  // for the receiver, when it was last looked at
    double testedAt;
};

[[nodiscard]] inline bool paceBegins(uint64_t waitingBytes) {
    return waitingBytes > kPaceHighBytes;
}

[[nodiscard]] inline Pace paceBegin(uint64_t waitingBytes, double now) {
    return {waitingBytes, now};
}

// Has the wait come to its end?
[[nodiscard]] bool paceEnds(Pace* pace, uint64_t waitingBytes, double now);
