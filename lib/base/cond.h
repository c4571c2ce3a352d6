// A condition: an event that wakes one waiter and resets itself, and a broadcast on top of it.
//
// A signal without a waiter is remembered, and the next wait returns at once; two are remembered as
// one. A waiter may therefore wake without cause: it checks its own condition in a loop, under its
// lock.
//
//     while (!ready) (void)Cond_Wait(cond, lock);
//
// Failure: kStatusInvalidArgument for a null argument, kStatusNoMemory where the system has no
// room; *out is written only on success.
//
// Threads: any. Signal and broadcast need no lock, but use the condition until they return: where a
// waiter may destroy it, they are called with its lock or a reference held. A wait leaves the lock
// once, so that a lock that its thread holds twice stays held. No thread may wait on a condition
// that is destroyed.

#pragma once

#include <pthread.h>

#include <atomic>

#include "lib/base/lock.h"

struct Cond {
    // Constant after creation.
    uint32_t flags;

    // The event. `mutex` guards it and is held for no longer than a few stores. A broadcast sets
    // `signalled` as well, and each woken waiter sets it again for the next, so that `broadcast`
    // is never set alone.
    pthread_mutex_t mutex;
    pthread_cond_t wake;  // on the monotonic clock
    bool signalled;

    // Changed under `mutex`; atomic so that they can be looked at without it. `waiters` counts
    // before the caller's lock is left: the holder of that lock sees each wait that came before.
    std::atomic<int32_t> waiters;
    std::atomic<int32_t> broadcast;
};

[[nodiscard]] pelmoStatus Cond_Create(Cond** out);
[[nodiscard]] pelmoStatus Cond_Init(Cond* cond);
pelmoStatus Cond_Destroy(Cond* cond);

pelmoStatus Cond_Signal(Cond* cond);
pelmoStatus Cond_Broadcast(Cond* cond);

// The caller holds the lock, and holds it again on return.
pelmoStatus Cond_Wait(Cond* cond, Lock* lock);

// kStatusTimeout where no signal came in time. Steps of the wall clock don't matter. The time is
// cut to whole milliseconds; a negative one counts as 0.
[[nodiscard]] pelmoStatus Cond_TimedWait(Cond* cond, Lock* lock, double seconds);
