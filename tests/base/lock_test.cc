#include "lib/base/lock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "tests/support/fail_alloc.h"

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

TEST(Lock, IsLeftAsOftenAsItWasTaken) {
    Lock made;
    ASSERT_EQ(Lock_Init(&made, LockRank::kLeaf), kStatusSuccess);
    static constinit Lock ready = PELMO_LOCK_READY(LockRank::kLeaf);
    for (Lock* lock : {&made, &ready}) {
        Lock_Enter(lock);
        Lock_Enter(lock);
        Lock_Leave(lock);
        EXPECT_TRUE(isTaken(*lock));
        Lock_Leave(lock);
        EXPECT_FALSE(isTaken(*lock));
    }
    EXPECT_EQ(Lock_Destroy(&made), kStatusSuccess);
}

TEST(Lock, ExcludesOtherThreads) {
    Lock* lock = nullptr;
    ASSERT_EQ(Lock_Create(&lock, LockRank::kLeaf), kStatusSuccess);
    int counter = 0;  // plain on purpose
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 5000; ++turn) {
                const LockGuard guard(*lock);
                ++counter;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(counter, 20000);
    EXPECT_EQ(Lock_Destroy(lock), kStatusSuccess);
}

TEST(Lock, IsNotMadeWithoutMemory) {
    const size_t failures = eachAllocationFails([] {
        Lock* lock = nullptr;
        const pelmoStatus status = Lock_Create(&lock, LockRank::kLeaf);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        EXPECT_EQ(lock == nullptr, status != kStatusSuccess);
        if (lock != nullptr) Lock_Destroy(lock);
    });
    EXPECT_EQ(failures, 2u);
}

#ifndef NDEBUG

struct Ranked : Lock {
    explicit Ranked(LockRank wanted) { EXPECT_EQ(Lock_Init(this, wanted), kStatusSuccess); }
    ~Ranked() { Lock_Destroy(this); }
};

TEST(LockRank, LetsThreadsGoDownAndLeaveInAnyOrder) {
    Ranked library(LockRank::kLibrary), first(LockRank::kQueueObject),
        second(LockRank::kQueueObject), log(LockRank::kLog);
    Lock_Enter(&library);
    Lock_Enter(&first);
    Lock_Enter(&second);  // object locks may be held in pairs
    Lock_Enter(&log);
    Lock_Enter(&first);  // again: no new lock
    Lock_Leave(&library);
    Lock_Leave(&second);
    Lock_Leave(&first);
    EXPECT_TRUE(isTaken(first));
    Lock_Leave(&first);
    Lock_Leave(&log);
    Lock_Enter(&library);  // nothing is left of what was held
    Lock_Leave(&library);
}

TEST(LockRankDeathTest, StopsAtAnInversion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Ranked stats(LockRank::kStats), queue(LockRank::kQueueData), other(LockRank::kQueueData);
    const auto enter = [](Lock& outer, Lock& inner) {
        Lock_Enter(&outer);
        Lock_Enter(&inner);
    };
    EXPECT_DEATH(enter(queue, stats),
                 "lock order: taking 'stats lock' .* while holding 'queue data lock'");
    EXPECT_DEATH(enter(queue, other), "taking 'queue data lock' .* holding 'queue data lock'");
    EXPECT_DEATH(Lock_Leave(&stats), "lock order: leaving unheld 'stats lock'");
}

#endif

}  // namespace
