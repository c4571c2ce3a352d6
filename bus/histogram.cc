#include "bus/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>

namespace {

constexpr uint64_t kSteps = uint64_t{1} << kHistogramStepBits;

unsigned shiftOf(uint64_t value) {
    const auto width = static_cast<unsigned>(std::bit_width(value));
    return width > kHistogramStepBits + 1 ? width - kHistogramStepBits - 1 : 0;
}

// Below 2 * kSteps each value has a cell, and above that a power of two has kSteps of them.
size_t cellOf(uint64_t value) {
    const unsigned shift = shiftOf(value);
    return (shift << kHistogramStepBits) + (value >> shift);
}

// The greatest value that the cell counts.
uint64_t topOf(size_t cell) {
    const size_t shift = cell < 2 * kSteps ? 0 : (cell >> kHistogramStepBits) - 1;
    const uint64_t step = cell - (shift << kHistogramStepBits);
    return ((step + 1) << shift) - 1;  // the last cell's wraps around to the end of 64 bits
}

}  // namespace

void histogramAdd(Histogram& histogram, uint64_t value) {
    ++histogram.cells[cellOf(value)];
    ++histogram.count;
    histogram.least = std::min(histogram.least, value);
    histogram.most = std::max(histogram.most, value);
}

uint64_t histogramAt(const Histogram& histogram, double part) {
    if (histogram.count == 0) return 0;
    const double rank = std::ceil(part * static_cast<double>(histogram.count));
    uint64_t seen = 0;
    for (size_t cell = 0; cell < histogram.cells.size(); ++cell) {
        seen += histogram.cells[cell];
        if (static_cast<double>(seen) < rank) continue;
        return std::clamp(topOf(cell), histogram.least, histogram.most);
    }
    return histogram.most;
}
