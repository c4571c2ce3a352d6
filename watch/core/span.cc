#include "watch/core/span.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

// The wall clock is slewed by less, and read some time after the steady one.
constexpr int64_t kLeastStepNanoseconds = kNanosecondsOfSecond / 10;
constexpr int64_t kSlewPerMille = 1;

int64_t stepOf(int64_t byStamps, int64_t elapsed) {
    const int64_t step = byStamps - elapsed;
    const int64_t least = kLeastStepNanoseconds + elapsed / 1000 * kSlewPerMille;
    return std::abs(step) >= least ? step : 0;
}

// In whole milliseconds, as stamps are.
int64_t elapsedSince(int64_t lastSteady, int64_t steady) {
    constexpr int64_t kMillisecond = kNanosecondsOfSecond / 1000;
    const int64_t elapsed = steady - lastSteady + kMillisecond / 2;
    return std::max<int64_t>(elapsed - elapsed % kMillisecond, 0);
}

SnapSpan liveSpan(int64_t byStamps, int64_t elapsed) {
    return {.elapsedNanoseconds = elapsed,
            .skippedNanoseconds = 0,
            .stepNanoseconds = stepOf(byStamps, elapsed)};
}

}  // namespace

void spanBegin(SpanWatch& watch, int64_t steadyNanoseconds) {
    watch = {.isLive = true, .hasLast = false, .lastEnd = 0, .lastSteady = steadyNanoseconds};
}

SnapSpan spanTake(SpanWatch& watch, const SnapHeader& snapshot, int64_t steadyNanoseconds) {
    const int64_t begin = nanosecondsOf(snapshot.prevTime);
    const int64_t end = nanosecondsOf(snapshot.thisTime);
    const int64_t lastSteady = std::exchange(watch.lastSteady, steadyNanoseconds);
    const bool hasLast = std::exchange(watch.hasLast, true);
    const int64_t lastEnd = std::exchange(watch.lastEnd, end);
    if (watch.isLive) return liveSpan(end - begin, elapsedSince(lastSteady, steadyNanoseconds));
    const int64_t between = hasLast ? begin - lastEnd : 0;
    return {.elapsedNanoseconds = std::max<int64_t>(end - begin, 0),
            .skippedNanoseconds = std::max<int64_t>(between, 0),
            .stepNanoseconds = std::min<int64_t>(between, 0)};
}
