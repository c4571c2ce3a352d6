// Pacing: whether a sender is to be held up for the receivers of what it sends, and whether a
// receiver that has fallen far behind is to be cut off.
//
// A sender waits while even the fastest of its receivers has more than the high mark waiting, and
// goes on once that one is down to the low mark. It isn't held up for a receiver that takes less
// than kPaceLeastBytes in kPaceTestSeconds: from then on messages pile up for that one, up to its
// backlog.
//
// A receiver above its backlog is judged by what it takes. Senders to it alone wait
// meanwhile. It is cut off if it takes too little in kExcessTests tests in a row: less than
// kExcessLeastBytes, or less than is added by senders that don't wait for it; and if such senders
// have kept it above its backlog for kExcessLongestSeconds. So no receiver that reads is cut off
// for one large message, nor for messages of several senders at once.
//
// Threads: pure functions over the owner's record.
//
// Units: bytes; seconds by the steady clock. What was taken is counted from the connection's
// beginning.

#pragma once

#include <cstdint>

inline constexpr uint64_t kPaceHighBytes = uint64_t{4} << 20;
inline constexpr uint64_t kPaceLowBytes = uint64_t{1} << 20;
inline constexpr uint64_t kPaceLeastBytes = uint64_t{256} << 10;
inline constexpr double kPaceTestSeconds = 0.25;

inline constexpr uint64_t kExcessLeastBytes = uint64_t{64} << 10;
inline constexpr double kExcessTestSeconds = 0.25;
inline constexpr uint32_t kExcessTests = 4;
inline constexpr double kExcessLongestSeconds = 10.0;

// A receiver, now.
struct Backlog {
    uint64_t waitingBytes;
    uint64_t takenBytes;
};

// With a small backlog both marks lie well below it.
struct PaceMarks {
    uint64_t highBytes;
    uint64_t lowBytes;
};
[[nodiscard]] PaceMarks paceMarks(uint64_t backlogLimit);

// A wait that is under way.
struct Pace {
    uint64_t takenBytes;  // by the receiver, when it was last looked at
    double testedAt;
};

[[nodiscard]] inline Pace paceBegin(const Backlog& backlog, double now) {
    return {backlog.takenBytes, now};
}

// Has the wait come to its end?
[[nodiscard]] bool paceEnds(Pace* pace, const Backlog& backlog, uint64_t lowBytes, double now);

// A receiver above its backlog, from excessBegin on.
struct Excess {
    double since;
    double testedAt;
    Backlog tested;
    uint32_t badTests;  // in a row
    bool isOutrun;  // the owner's: since the last test something was added by a sender that goes on
};

enum class ExcessVerdict : uint8_t { kGoOn, kWithin, kTooSlow };

[[nodiscard]] inline Excess excessBegin(const Backlog& backlog, double now) {
    return {now, now, backlog, 0, false};
}

// Called every kExcessTestSeconds or later; one that is called earlier is no test.
[[nodiscard]] ExcessVerdict excessJudge(Excess* excess,
                                        const Backlog& backlog,
                                        uint64_t backlogLimit,
                                        double now);
