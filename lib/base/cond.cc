#include "lib/base/cond.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <new>
#include <utility>

namespace {

constexpr double kMillisecondsMax = 1e12;  // some thirty years, as good as for ever
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

void count(std::atomic<int32_t>& number, int32_t by) {
    number.store(number.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

bool initWake(pthread_cond_t* wake) {
    pthread_condattr_t attributes;
    if (pthread_condattr_init(&attributes) != 0) return false;
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    const int failed = pthread_cond_init(wake, &attributes);
    pthread_condattr_destroy(&attributes);
    return failed == 0;
}

timespec deadlineIn(double seconds) {
    const double milliseconds = std::trunc(seconds * 1000);
    // Every comparison with NaN is false, so that it becomes 0.
    const auto wait = milliseconds > 0
                          ? static_cast<int64_t>(std::min(milliseconds, kMillisecondsMax))
                          : int64_t{0};
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const int64_t nanoseconds = deadline.tv_nsec + wait % 1000 * 1'000'000;
    deadline.tv_sec += wait / 1000 + nanoseconds / kNanosecondsPerSecond;
    deadline.tv_nsec = nanoseconds % kNanosecondsPerSecond;
    return deadline;
}

// Under `mutex`: waits for the event and takes it. Without a deadline, without limit.
bool awaitSignalLocked(Cond* cond, const timespec* deadline) {
    while (!cond->signalled) {
        if (deadline == nullptr) {
            pthread_cond_wait(&cond->wake, &cond->mutex);
        } else if (pthread_cond_timedwait(&cond->wake, &cond->mutex, deadline) == ETIMEDOUT) {
            break;
        }
    }
    return std::exchange(cond->signalled, false);
}

// Under `mutex`: a woken waiter hands a broadcast on to the next, and the last one ends it. That
// happens in one step with its leaving the count: if two woken waiters were counted at once, each
// would take the other for one still asleep, and the broadcast would never end.
void passBroadcastOnLocked(Cond* cond) {
    if (cond->broadcast.load(std::memory_order_relaxed) == 0) return;
    if (cond->waiters.load(std::memory_order_relaxed) > 0) {
        cond->signalled = true;
        pthread_cond_signal(&cond->wake);
    } else {
        cond->broadcast.store(0, std::memory_order_relaxed);
    }
}

// The mutex is free before the waiter wakes: one that woke to find it held would sleep once more.
void signal(Cond* cond, bool isBroadcast) {
    pthread_mutex_lock(&cond->mutex);
    if (isBroadcast) cond->broadcast.store(1, std::memory_order_relaxed);
    cond->signalled = true;
    pthread_mutex_unlock(&cond->mutex);
    pthread_cond_signal(&cond->wake);
}

pelmoStatus wait(Cond* cond, Lock* lock, const timespec* deadline) PELMO_UNCHECKED_LOCKING {
    // The mutex is taken before the lock is left, so that no signal in between is missed.
    pthread_mutex_lock(&cond->mutex);
    count(cond->waiters, 1);
    Lock_Leave(lock);
    const bool woken = awaitSignalLocked(cond, deadline);
    count(cond->waiters, -1);
    if (woken) passBroadcastOnLocked(cond);
    pthread_mutex_unlock(&cond->mutex);

    Lock_Enter(lock);
    return woken ? kStatusSuccess : kStatusTimeout;
}

}  // namespace

pelmoStatus Cond_Init(Cond* cond) {
    if (cond == nullptr) return kStatusInvalidArgument;
    if (pthread_mutex_init(&cond->mutex, nullptr) != 0) return kStatusNoMemory;
    if (!initWake(&cond->wake)) {
        pthread_mutex_destroy(&cond->mutex);
        return kStatusNoMemory;
    }
    cond->flags = 0;
    cond->signalled = false;
    cond->waiters.store(0, std::memory_order_relaxed);
    cond->broadcast.store(0, std::memory_order_relaxed);
    return kStatusSuccess;
}

pelmoStatus Cond_Create(Cond** out) {
    if (out == nullptr) return kStatusInvalidArgument;
    void* block = std::malloc(sizeof(Cond));
    if (block == nullptr) return kStatusNoMemory;

    Cond* cond = new (block) Cond;
    const pelmoStatus status = Cond_Init(cond);
    if (status != kStatusSuccess) {
        std::free(block);
        return status;
    }
    cond->flags = kRecordAllocated;
    *out = cond;
    return kStatusSuccess;
}

pelmoStatus Cond_Destroy(Cond* cond) {
    if (cond == nullptr) return kStatusInvalidArgument;
    assert(cond->waiters.load() == 0);
    pthread_cond_destroy(&cond->wake);
    pthread_mutex_destroy(&cond->mutex);
    if ((cond->flags & kRecordAllocated) != 0) std::free(cond);
    return kStatusSuccess;
}

pelmoStatus Cond_Signal(Cond* cond) {
    if (cond == nullptr) return kStatusInvalidArgument;
    signal(cond, false);
    return kStatusSuccess;
}

pelmoStatus Cond_Broadcast(Cond* cond) {
    if (cond == nullptr) return kStatusInvalidArgument;
    signal(cond, true);
    return kStatusSuccess;
}

pelmoStatus Cond_Wait(Cond* cond, Lock* lock) {
    if (cond == nullptr || lock == nullptr) return kStatusInvalidArgument;
    return wait(cond, lock, nullptr);
}

pelmoStatus Cond_TimedWait(Cond* cond, Lock* lock, double seconds) {
    if (cond == nullptr || lock == nullptr) return kStatusInvalidArgument;
    const timespec deadline = deadlineIn(seconds);
    return wait(cond, lock, &deadline);
}
