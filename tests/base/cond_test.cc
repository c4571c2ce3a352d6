#include "lib/base/cond.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <thread>
#include <vector>

namespace {

constexpr double kLong = 60;  // no wait takes that long in a good run

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
    EXPECT_EQ(cond.broadcast + cond.signalled, 0);
}

TEST_F(Condition, TimesOutWithTheLockHeldAgain) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    constexpr double kForever = std::numeric_limits<double>::infinity();
    const LockGuard guard(lock);
    for (const double seconds : {0.0, 0.002, -1e300, kNone, 1e300, kForever}) {
        const bool isLong = seconds > kLong;
        if (isLong) Cond_Signal(&cond);
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, seconds), isLong ? kStatusSuccess : kStatusTimeout);
        std::thread([this] { EXPECT_EQ(pthread_mutex_trylock(&lock.mutex), EBUSY); }).join();
    }
}

}  // namespace
