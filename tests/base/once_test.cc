#include "lib/base/once.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

namespace {

// What the set-ups work on: a gate's function takes no argument.
OnceGate gate;
int setUps;  // plain on purpose: the gate is what orders its readers
int pauses;
pelmoStatus inner;

TEST(OnceGate, RunsTheSetUpOnceForAll) {
    constexpr int kThreads = 16;
    for (int round = 0; round < 50; ++round) {
        gate.word = 1;
        setUps = 0;
        std::latch start(kThreads);
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&start] {
                start.arrive_and_wait();
                EXPECT_EQ(oncePass(
                              gate, [] { ++setUps; }, std::this_thread::yield),
                          kStatusSuccess);
                EXPECT_EQ(setUps, 1);
            });
        }
        threads.clear();
        EXPECT_LE(gate.word, kOnceDone);
    }
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
