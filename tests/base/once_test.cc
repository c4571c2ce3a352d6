#include "lib/base/once.h"

#include <gtest/gtest.h>

#include "tests/support/test.h"

namespace {

// What the set-ups work on: a gate's function takes no argument.
OnceGate gate;
int setUps;  // plain on purpose: the gate is what orders its readers
int pauses;
pelmoStatus inner;

TEST(OnceGate, RunsTheSetUpOnceForAll) {
    OnceGate gates[50];
    for (OnceGate& each : gates) {
        each.word = 1;
    }
    setUps = 0;
    race(16, 50, [&gates](int, int round) {
        const auto setUp = [] { ++setUps; };
        EXPECT_EQ(oncePass(gates[round], setUp, std::this_thread::yield), kStatusSuccess);
        EXPECT_EQ(setUps, round + 1);
        EXPECT_LE(gates[round].word, kOnceDone);
    });
}

TEST(OnceGate, GivesUpAfter100LooksAndPassesLater) {
    gate.word = 1;
    setUps = pauses = 0;
    const auto count = [] { ++pauses; };
    const auto setUp = [] {
        ++setUps;
        inner = oncePass(
            gate, [] { ++setUps; }, [] { ++pauses; });
    };
    EXPECT_EQ(oncePass(gate, setUp, count), kStatusSuccess);
    EXPECT_EQ(inner, kStatusOsError);
    EXPECT_EQ(pauses, 100);
    EXPECT_EQ(oncePass(gate, setUp, count), kStatusSuccess);
    EXPECT_EQ(setUps, 1);
    EXPECT_EQ(pauses, 100);
}

}  // namespace
