#include "lib/base/lock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <latch>
#include <limits>
#include <string>
#include <thread>

#include "lib/base/cond.h"
#include "lib/base/thread.h"
#include "tests/support/test.h"

namespace {

// As another thread sees it.
bool isTaken(Lock& lock) {
    bool taken = false;
    std::thread([&] {
        taken = pthread_mutex_trylock(&lock.mutex) == EBUSY;
        if (!taken) pthread_mutex_unlock(&lock.mutex);
    }).join();
    return taken;
}

constexpr double kLong = 60;  // no wait takes that long in a good run

struct Condition : testing::Test {
    Condition() { EXPECT_EQ(Cond_Init(&cond), kStatusSuccess); }
    ~Condition() override { Cond_Destroy(&cond); }

    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    Cond cond;
};

TEST_F(Condition, RemembersOneSignal) {
    const LockGuard guard(lock);
    for (const auto& wake : {Cond_Signal, Cond_Broadcast}) {
        wake(&cond);
        wake(&cond);
        EXPECT_EQ(cond.broadcast, wake == Cond_Broadcast ? 1 : 0);
        EXPECT_EQ(Cond_Wait(&cond, &lock), kStatusSuccess);
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, 0), kStatusTimeout);
        EXPECT_EQ(cond.broadcast + cond.waiters, 0);
    }
}

TEST_F(Condition, TimesOutWithTheLockHeldAgain) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    constexpr double kForever = std::numeric_limits<double>::infinity();
    const LockGuard guard(lock);
    for (const double seconds : {0.0, 0.002, -1e300, kNone, 1e300, kForever}) {
        const bool isLong = seconds > kLong;
        if (isLong) Cond_Signal(&cond);
        EXPECT_EQ(Cond_TimedWait(&cond, &lock, seconds), isLong ? kStatusSuccess : kStatusTimeout);
        EXPECT_TRUE(isTaken(lock));
    }
}

TEST(Thread, RunsWithinTheHookAndDoesNotWaitForItself) {
    static std::latch published(1);  // the record
    static Thread* thread;
    static std::string steps;
    Thread_SetStartHook([](ThreadFunction function, void* argument) {
        steps += "before ";
        function(argument);
        steps += "after";
    });
    const auto body = [](void*) {
        published.wait();
        steps += "body ";
        EXPECT_TRUE(Thread_IsCurrent(thread));
        EXPECT_EQ(Thread_Join(thread), kStatusOsError);
    };
    ASSERT_EQ(Thread_Create(&thread, body, nullptr), kStatusSuccess);
    EXPECT_FALSE(Thread_IsCurrent(thread));
    published.count_down();
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
    EXPECT_EQ(steps, "before body after");
    Thread_SetStartHook(nullptr);
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

#ifndef NDEBUG

// Pairs of object locks are allowed, taking a held lock again is no new lock, and locks may be left
// in any order.
TEST(LockRankDeathTest, StopsAtAnInversionOnly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static constinit Lock library = PELMO_LOCK_READY(LockRank::kLibrary),
                          first = PELMO_LOCK_READY(LockRank::kQueueObject),
                          second = PELMO_LOCK_READY(LockRank::kQueueObject),
                          queue = PELMO_LOCK_READY(LockRank::kQueueData),
                          other = PELMO_LOCK_READY(LockRank::kQueueData),
                          log = PELMO_LOCK_READY(LockRank::kLog);
    for (Lock* lock : {&library, &first, &second, &log, &first}) {
        Lock_Enter(lock);
    }
    for (Lock* lock : {&library, &second, &first, &first, &log}) {
        EXPECT_TRUE(isTaken(*lock));
        Lock_Leave(lock);
    }
    Lock_Enter(&library);  // nothing is left of what was held
    Lock_Leave(&library);
    const auto enter = [](Lock& outer, Lock& inner) {
        Lock_Enter(&outer);
        Lock_Enter(&inner);
    };
    EXPECT_DEATH(enter(log, queue), "lock order: taking 'queue data lock' .* holding 'log lock'");
    EXPECT_DEATH(enter(queue, other), "taking 'queue data lock' .* holding 'queue data lock'");
    EXPECT_DEATH(Lock_Leave(&log), "lock order: leaving unheld 'log lock'");
}

#endif

}  // namespace
