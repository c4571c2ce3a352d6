#include "pmd/pacing.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;

TEST(Pacing, WaitsForWhoKeepsUp) {
    EXPECT_EQ(paceMarks(64 * kMiB).highBytes, 4 * kMiB);
    EXPECT_EQ(paceMarks(kMiB).highBytes, kMiB / 2);
    const uint64_t low = paceMarks(64 * kMiB).lowBytes;

    Pace pace = paceBegin({8 * kMiB, 0}, 10.0);
    EXPECT_FALSE(paceEnds(&pace, {8 * kMiB, 0}, low, 10.2));
    EXPECT_FALSE(paceEnds(&pace, {8 * kMiB, kPaceLeastBytes}, low, 10.25));
    EXPECT_FALSE(paceEnds(&pace, {8 * kMiB, kPaceLeastBytes}, low, 10.49));
    // What others add meanwhile doesn't count against it.
    EXPECT_FALSE(paceEnds(&pace, {48 * kMiB, 2 * kPaceLeastBytes}, low, 10.5));
    EXPECT_TRUE(paceEnds(&pace, {5 * kMiB, 3 * kPaceLeastBytes - 1}, low, 10.75));

    pace = paceBegin({8 * kMiB, 0}, 10.0);
    EXPECT_TRUE(paceEnds(&pace, {low, 0}, low, 10.01));
}

TEST(Pacing, JudgesWhoIsAboveItsBacklogByWhatItTakes) {
    using enum ExcessVerdict;
    constexpr uint64_t kLimit = 64 * kMiB;
    struct Step {
        int64_t added, taken;  // in each test
        bool isOutrun;
        uint32_t tests;
        ExcessVerdict last;
    };
    constexpr int64_t kSome = kExcessLeastBytes;
    const std::pair<const char*, std::vector<Step>> cases[] = {
        {"stopped", {{0, 0, false, 4, kTooSlow}}},
        {"takes too little", {{0, kSome - 1, false, 4, kTooSlow}}},
        {"takes some, and its senders wait", {{0, kSome, false, 60, kGoOn}}},
        {"large messages of many senders", {{10 * kMiB, kMiB, false, 60, kGoOn}}},
        {"a stop for a moment",
         {{0, 0, false, 3, kGoOn}, {0, kMiB, false, 1, kGoOn}, {0, 0, false, 3, kGoOn}}},
        {"falls back behind a sender that goes on", {{2 * kMiB, kMiB, true, 4, kTooSlow}}},
        {"catches up with it", {{kMiB, 2 * kMiB, true, 8, kGoOn}}},
        {"doesn't come within for long", {{kMiB, kMiB + 1, true, 40, kTooSlow}}},
        {"comes within", {{0, 10 * kMiB, false, 2, kWithin}}},
    };
    for (const auto& [what, steps] : cases) {
        Backlog backlog = {80 * kMiB, 0};
        double now = 10.0;
        Excess excess = excessBegin(backlog, now);
        for (const Step& step : steps) {
            ExcessVerdict verdict = kGoOn;
            for (uint32_t i = 0; i < step.tests; ++i) {
                EXPECT_EQ(verdict, kGoOn) << what << i;
                backlog.waitingBytes += static_cast<uint64_t>(step.added - step.taken);
                backlog.takenBytes += static_cast<uint64_t>(step.taken);
                excess.isOutrun = step.isOutrun;
                EXPECT_EQ(excessJudge(&excess, {kLimit + 1, 0}, kLimit, now + 0.2), kGoOn);
                now += kExcessTestSeconds;
                verdict = excessJudge(&excess, backlog, kLimit, now);
            }
            EXPECT_EQ(verdict, step.last) << what;
        }
    }
}

}  // namespace
