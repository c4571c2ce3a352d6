// An even pace of so many a second, as a function of the time: what is late is caught up with, so
// that the rate holds over any stretch.
//
//     pace = paceStart(rate, now);
//     for (...) { wait until paceDue(pace); send; paceNext(pace, now); }
//
// Who couldn't keep the pace for another reason than the clock, since there was nothing to send or
// nobody to take it, begins anew with paceRestart: nobody wants the backlog in one burst. So does
// whoever is late by more than kMostLate.

#pragma once

#include <cstdint>

#include "programs/steady_time.h"

constexpr int64_t kMostLate = kSecond;

struct Pace {
    double rate = 0;  // a second; 0 for no pace
    int64_t start = 0;
    uint64_t count = 0;  // since then
};

[[nodiscard]] Pace paceStart(double rate, int64_t now);

// Always past where there is no pace.
[[nodiscard]] int64_t paceDue(const Pace& pace);
void paceNext(Pace& pace, int64_t now);
void paceRestart(Pace& pace, int64_t now);
