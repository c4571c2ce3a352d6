#include "bus/measure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

TEST(BusPace, HoldsTheRateWithoutDrift) {
    Pace pace = paceStart(3, 1000);
    std::mt19937 random(5);
    int64_t now = 1000;
    for (int i = 0; i < 30'000; ++i) {
        const int64_t due = paceDue(pace);
        EXPECT_LE(std::abs(due - (1000 + i * kSecond / 3)), i / 1'000'000 + 10);
        // Each send is late, by up to almost an interval.
        now = std::max(now, due) + static_cast<int64_t>(random() % (330 * kMillisecond));
        paceNext(pace, now);
    }
    // A stall isn't caught up with: the next one is due an interval from now.
    now = paceDue(pace) + 60 * kSecond;
    paceNext(pace, now);
    EXPECT_NEAR(static_cast<double>(paceDue(pace) - now), kSecond / 3.0, 2);
    EXPECT_EQ(paceDue(paceStart(0, 1000)), 0);
    EXPECT_EQ(paceDue(Pace{1e-300, 0, 1}), kNever);
}

// Each step: a line's time, when it is asked for, and when it is due.
TEST(BusReplay, KeepsTheTimesOfLines) {
    struct Step {
        int64_t time, now, due;
    };
    const struct {
        const char* what;
        double speed;
        std::vector<Step> steps;
        uint64_t leaps = 0;
        int64_t putOff = 0;
    } cases[] = {
        {"as they are, and late ones caught up with",
         1,
         {{700, 1000, 1000}, {790, 1300, 1090}, {1700, 1301, 2000}, {1700, 2300, 2000}}},
        {"twice as fast", 2, {{0, 1000, 1000}, {100, 1000, 1050}, {102, 1060, 1051}}},
        {"a tenth as fast", 0.1, {{0, 0, 0}, {100, 0, 1000}}},
        {"back by a little: in its place, and the next one by the first",
         1,
         {{5000, 0, 0}, {4000, 0, 0}, {4999, 10, 10}, {5100, 10, 100}}},
        {"back by more: from there on",
         1,
         {{5000, 100, 100}, {5500, 100, 600}, {4499, 600, 600}, {4599, 600, 700}, {9, 700, 700}},
         2},
        {"slow input puts off what follows",
         1,
         {{0, 0, 0}, {100, 60'100, 60'100}, {200, 60'100, 60'200}, {300, 61'301, 61'301}},
         0,
         61'001},
        {"distant times", 1, {{-9'000'000'000'000, 5, 5}, {9'000'000'000'000, 5, -1}}},
    };
    const auto at = [](int64_t milliseconds) { return milliseconds * kMillisecond; };
    for (const auto& [what, speed, steps, leaps, putOff] : cases) {
        Replay replay{.speed = speed};
        for (const Step& step : steps) {
            const int64_t due = replayDue(replay, at(step.time), at(step.now));
            EXPECT_EQ(due, step.due < 0 ? kNever : at(step.due)) << what << ": " << step.time;
        }
        EXPECT_EQ(replay.leaps, leaps) << what;
        EXPECT_EQ(replay.putOff, at(putOff)) << what;
    }
}

TEST(BusHistogram, IsWithinAPartOfTheTruth) {
    std::mt19937_64 random(11);
    Histogram histogram;
    std::vector<uint64_t> values;
    EXPECT_EQ(histogramAt(histogram, 0.5), 0u);
    for (int i = 0; i < 20'000; ++i) {
        values.push_back(i < 300 ? static_cast<uint64_t>(i) : random() >> random() % 64);
        histogramAdd(histogram, values.back());
    }
    std::ranges::sort(values);
    for (const double part : {0.0, 0.001, 0.1, 0.25, 0.5, 0.9, 0.99, 0.999, 1.0}) {
        const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(values.size())));
        const uint64_t truth = values[rank != 0 ? rank - 1 : 0];
        const uint64_t found = histogramAt(histogram, part);
        EXPECT_GE(found, truth);
        EXPECT_LE(found - truth, truth / 128);
        EXPECT_TRUE(found == truth || truth >= 256);
    }
    EXPECT_EQ(histogram.least, values.front());
    EXPECT_EQ(histogram.most, values.back());
}
