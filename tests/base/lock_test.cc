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
