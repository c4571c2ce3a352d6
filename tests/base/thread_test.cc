#include "lib/base/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>

#include "tests/support/test.h"

namespace {

// Runs body(argument) on a thread of its own, to its end.
void runThread(ThreadFunction body, void* argument) {
    Thread thread;
    ASSERT_EQ(Thread_Init(&thread, body, argument), kStatusSuccess);
    EXPECT_EQ(Thread_Join(&thread), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(&thread), kStatusSuccess);
}

TEST(Thread, DoesNotWaitForItself) {
    static std::latch published(1);  // the record
    static Thread* thread;
    const auto body = [](void*) {
        published.wait();
        EXPECT_TRUE(Thread_IsCurrent(thread));
        EXPECT_EQ(Thread_Join(thread), kStatusOsError);
    };
    ASSERT_EQ(Thread_Create(&thread, body, nullptr), kStatusSuccess);
    EXPECT_FALSE(Thread_IsCurrent(thread));
    published.count_down();
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
}

TEST(Thread, StartsThroughTheHook) {
    static std::string steps;
    steps.clear();
    const auto body = [](void*) { steps += "body "; };
    Thread_SetStartHook([](ThreadFunction function, void* argument) {
        steps += "before ";
        function(argument);
        steps += "after ";
    });
    runThread(body, nullptr);
    Thread_SetStartHook(nullptr);
    runThread(body, nullptr);
    EXPECT_EQ(steps, "before body after body ");
}

int setUps;  // plain on purpose: the gate is what orders its readers

TEST(OnceGate, RunsTheSetUpOnceForAll) {
    OnceGate gates[50];
    setUps = 0;
    race(16, 50, [&gates](int, int round) {
        const auto setUp = [] { ++setUps; };
        EXPECT_EQ(oncePass(gates[round], setUp, std::this_thread::yield), kStatusSuccess);
        EXPECT_EQ(setUps, round + 1);
    });
}

}  // namespace
