#include "bus/measure.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>

#include "programs/steady_time.h"

constinit Tally benchTally;

void tallyTake(pelmoMsg** messages, uint32_t count) {
    constexpr auto kRelaxed = std::memory_order_relaxed;  // only numbers, each for itself
    const int64_t now = steadyNow();
    const uint64_t before = benchTally.messages.load(kRelaxed);
    const uint64_t taken = std::min<uint64_t>(count, benchTally.most - before);
    uint64_t bytes = benchTally.bytes.load(kRelaxed);
    for (uint64_t i = 0; i < taken; ++i) {
        uint32_t sizeBytes = 0;
        if (pelmoMsg_GetByteSize(messages[i], &sizeBytes) == kStatusSuccess) bytes += sizeBytes;
    }
    if (benchTally.first.load(kRelaxed) == 0) benchTally.first.store(now, kRelaxed);
    benchTally.last.store(now, kRelaxed);
    benchTally.bytes.store(bytes, kRelaxed);
    benchTally.messages.store(before + taken, kRelaxed);
    benchTally.done = before + taken == benchTally.most;
}

Pace paceStart(double rate, int64_t now) {
    return {rate, now, 0};
}

// Each time is counted from the start, so that roundings don't add up.
int64_t paceDue(const Pace& pace) {
    if (pace.rate <= 0) return 0;
    return steadyAfter(pace.start, static_cast<double>(pace.count) / pace.rate);
}

void paceNext(Pace& pace, int64_t now) {
    if (pace.rate <= 0) return;
    if (now - paceDue(pace) > kMostLate) paceRestart(pace, now);
    ++pace.count;
}

void paceRestart(Pace& pace, int64_t now) {
    pace = paceStart(pace.rate, now);
}

int64_t replayDue(Replay& replay, int64_t time, int64_t now) {
    // Differences wrap to the distance, which may be greater than any time.
    const auto distance = [](int64_t from, int64_t to) {
        return static_cast<uint64_t>(to) - static_cast<uint64_t>(from);
    };
    const bool leaps = replay.hasBegun && time < replay.latest &&
                       distance(time, replay.latest) > uint64_t{kMostBack};
    if (!replay.hasBegun || leaps) {
        replay.hasBegun = true;
        replay.leaps += leaps ? 1 : 0;
        replay.first = replay.latest = time;
        replay.start = now;
        return now;
    }
    if (time < replay.latest) return now;
    replay.latest = time;
    const double nanoseconds = static_cast<double>(distance(replay.first, time));
    const double seconds = nanoseconds / static_cast<double>(kSecond) / replay.speed;
    const int64_t due = steadyAfter(replay.start, seconds);
    if (now - due <= kMostLate) return due;
    replay.putOff += now - due;
    replay.start += now - due;
    return now;
}

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
