#include "watch/core/span.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr int64_t kMs = 1'000'000;

struct Step {
    const char* what;
    int64_t beginMs, endMs;  // stamps
    int64_t steadyMs;
    int64_t elapsedMs, skippedMs, stepMs;
};

TimeSpec stampOf(int64_t milliseconds) {
    return {static_cast<int32_t>(milliseconds / 1000),
            static_cast<uint32_t>(milliseconds % 1000 * kMs)};
}

void run(SpanWatch watch, const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        SnapHeader snapshot{};
        snapshot.prevTime = stampOf(step.beginMs);
        snapshot.thisTime = stampOf(step.endMs);
        const SnapSpan span = spanTake(watch, snapshot, step.steadyMs * kMs);
        EXPECT_EQ(span.elapsedNanoseconds, step.elapsedMs * kMs) << step.what;
        EXPECT_EQ(span.skippedNanoseconds, step.skippedMs * kMs) << step.what;
        EXPECT_EQ(span.stepNanoseconds, step.stepMs * kMs) << step.what;
    }
}

TEST(SpanTake, LiveLengthsAreTheSteadyClocks) {
    SpanWatch watch;
    spanBegin(watch, 500 * kMs);
    run(watch, {{"first", 1000000, 1001000, 1500, 1000, 0, 0},
                {"slewed by less than a step", 1001000, 1002050, 2500, 1000, 0, 0},
                {"set back by an hour", 3602050, 3050, 3500, 1000, 0, -3600000},
                {"set forward, or slept", 3050, 64050, 4500, 1000, 0, 60000},
                {"the steady clock doesn't move", 64050, 64050, 4500, 0, 0, 0}});
}

TEST(SpanTake, OfflineWhatLiesBetweenIsSilenceOrAStep) {
    run({}, {{"first", 1700000000000, 1700000010000, 0, 10000, 0, 0},
             {"follows", 1700000010000, 1700000013999, 0, 3999, 0, 0},
             {"after an hour of nothing", 1700003613999, 1700003614999, 0, 1000, 3600000, 0},
             {"the clock was set back", 1700000000000, 1700000000500, 0, 500, 0, -3614999},
             {"stamps that go back", 1700000000500, 1700000000400, 0, 0, 0, 0}});
}

}  // namespace
