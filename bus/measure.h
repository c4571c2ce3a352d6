// Messages counted as they come in, from any thread: how many, their bytes, and from when to when.
//
// There is one per process, since listeners that take many messages in one call have no closure.
//
// Threads: any may read. The queue that counts is dispatched by one thread.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "lib/pelmo.h"
#include "programs/steady_time.h"

struct Tally {
    std::atomic<uint64_t> messages = 0;
    std::atomic<uint64_t> bytes = 0;
    std::atomic<int64_t> first = 0;  // on the steady clock; 0 for none
    std::atomic<int64_t> last = 0;

    // Set at the start.
    uint64_t most = UINT64_MAX;  // messages that are counted
    bool done = false;           // the thread that dispatches sets and reads it
};

extern Tally benchTally;

// A listener's callback.
void tallyTake(pelmoMsg** messages, uint32_t count);

// An even pace of so many a second, as a function of the time: what is late is caught up with, so
// that the rate holds over any stretch.
//
//     pace = paceStart(rate, now);
//     for (...) { wait until paceDue(pace); send; paceNext(pace, now); }
//
// A sender that fell back because there was nothing to send, or no room to send it, calls
// paceRestart, so that the backlog doesn't leave in one burst. A sender that is late by more than
// kMostLate is restarted too.

constexpr int64_t kMostLate = kSecond;

struct Pace {
    double rate = 0;  // a second; 0 for no pace
    int64_t start = 0;
    uint64_t count = 0;  // since then
};

[[nodiscard]] Pace paceStart(double rate, int64_t now);

// Always in the past if there is no pace.
[[nodiscard]] int64_t paceDue(const Pace& pace);
void paceNext(Pace& pace, int64_t now);
void paceRestart(Pace& pace, int64_t now);

// Times that lines carry, played at a speed: each is due as long after the first as it says. What
// is late by up to kMostLate is caught up with, since times come with the jitter of who took them.
// What is later, because the input or the daemon was slow, puts off everything after it: the
// backlog doesn't leave in one burst.
//
// Times that go back a little are due at once, in their place. Where they go back by more than
// kMostBack another recording begins, at once.

constexpr int64_t kMostBack = kSecond;

struct Replay {
    double speed = 1;  // above 0
    bool hasBegun = false;
    int64_t first = 0;   // the time that is due at `start`
    int64_t latest = 0;  // of the times so far
    int64_t start = 0;   // on the steady clock

    // For a word at the end.
    uint64_t leaps = 0;  // by more than kMostBack
    int64_t putOff = 0;  // nanoseconds in all
};

// When a line is due that carries this time, in nanoseconds since any moment. kNever if that is out
// of range.
[[nodiscard]] int64_t replayDue(Replay& replay, int64_t time, int64_t now);

// How often each value came, in a table of fixed size: exact below 256, and within one part in 128
// above. Values are nanoseconds here, and the table reaches to the end of 64 bits.
//
// Threads: one user at a time.

constexpr unsigned kHistogramStepBits = 7;  // 128 steps for each power of two
constexpr unsigned kHistogramCells = (64 - kHistogramStepBits + 1) << kHistogramStepBits;

struct Histogram {
    std::array<uint64_t, kHistogramCells> cells{};
    uint64_t count = 0;
    uint64_t least = UINT64_MAX;
    uint64_t most = 0;
};

void histogramAdd(Histogram& histogram, uint64_t value);

// The least value that so great a part of all values don't exceed, from 0 to 1. 0 where there are
// none.
[[nodiscard]] uint64_t histogramAt(const Histogram& histogram, double part);
