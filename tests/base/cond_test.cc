#include "lib/base/cond.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr double kLong = 60;  // nobody waits that long in a good run

struct Condition : testing::Test {
    Condition() {
        EXPECT_EQ(Lock_Init(&lock, LockRank::kLeaf), kStatusSuccess);
        EXPECT_EQ(Cond_Init(&cond), kStatusSuccess);
    }
    ~Condition() override {
        Cond_Destroy(&cond);
        Lock_Destroy(&lock);
    }

    template <typename Test>
    void awaitUnderLock(Test test) {
        for (bool met = false; !met; std::this_thread::yield()) {
            const LockGuard guard(lock);
            met = test();
        }
    }

    Lock lock;
    Cond cond;
    std::vector<std::jthread> threads;
};

TEST_F(Condition, RemembersOneSignal) {
    const LockGuard guard(lock);
    for (const auto& wake : {Cond_Signal, Cond_Broadcast}) {
        wake(&cond);
        wake(&cond);
        EXPECT_EQ(Cond_Wait(&cond, &lock), kStatusSuccess);
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, 0), kStatusTimeout);
        EXPECT_EQ(cond.broadcast + cond.waiters, 0);
    }
}

TEST_F(Condition, SignalWakesOneAndBroadcastTheRest) {
    int woken = 0;  // under the lock
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            const LockGuard guard(lock);
            EXPECT_EQ(Cond_TimedWait(&cond, &lock, kLong), kStatusSuccess);
            ++woken;
        });
    }
    awaitUnderLock([this] { return cond.waiters == 3; });
    Cond_Signal(&cond);
    awaitUnderLock([&] { return woken == 1; });
    EXPECT_EQ(cond.waiters, 2);
    Cond_Broadcast(&cond);
    threads.clear();
    EXPECT_EQ(woken, 3);
    EXPECT_EQ(cond.broadcast, 0);
    EXPECT_FALSE(cond.signalled);
}

// Many broadcasts at any moment of a chain: nobody stays asleep.
TEST_F(Condition, BroadcastsMayOverlap) {
    int turn = 0;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            const LockGuard guard(lock);
            while (turn < 300) {
                ASSERT_EQ(Cond_TimedWait(&cond, &lock, kLong), kStatusSuccess);
            }
        });
    }
    for (bool last = false; !last; Cond_Broadcast(&cond)) {
        const LockGuard guard(lock);
        last = ++turn == 300;
    }
    threads.clear();
    EXPECT_EQ(cond.waiters, 0);
}

TEST_F(Condition, TimesOutWithTheLockHeldAgain) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    const LockGuard guard(lock);
    for (const double seconds : {0.0, 0.0009, 0.002, -1.0, -1e300, kNone}) {
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, seconds), kStatusTimeout);
        std::thread([this] { EXPECT_EQ(pthread_mutex_trylock(&lock.mutex), EBUSY); }).join();
    }
    for (const double seconds : {1e300, std::numeric_limits<double>::infinity()}) {
        Cond_Signal(&cond);
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, seconds), kStatusSuccess);
    }
}

}  // namespace
