#include "lib/base/lock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

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
    Lock* made = nullptr;
    ASSERT_EQ(Lock_Create(&made, LockRank::kLeaf), kStatusSuccess);
    static constinit Lock ready = PELMO_LOCK_READY(LockRank::kLeaf);
    for (Lock* lock : {made, &ready}) {
        Lock_Enter(lock);
        Lock_Enter(lock);
        Lock_Leave(lock);
        EXPECT_TRUE(isTaken(*lock));
        Lock_Leave(lock);
        EXPECT_FALSE(isTaken(*lock));
    }
    EXPECT_EQ(Lock_Destroy(made), kStatusSuccess);
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
