// How often each value came, in a table of fixed size: exact below 256, and within one part in 128
// above. Values are nanoseconds here, and the table reaches to the end of 64 bits.
//
// Threads: one user at a time.

#pragma once

#include <array>
#include <cstdint>

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
