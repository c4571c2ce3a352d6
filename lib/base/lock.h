// A recursive lock with a rank.
//
// Create allocates the record, Init fills one in the caller's storage; Destroy serves both and
// frees only what Create allocated. No thread may hold a lock that is destroyed.
//
// Failure: kStatusInvalidArgument for a null record, kStatusNoMemory where the system has no room;
// *out is written only on success.
//
// Threads: any. The holder may take its lock again, and leaves it as often. Builds without NDEBUG
// keep a list of what each thread holds and abort, naming both locks, where a thread violates the
// order of lib/base/lock_rank.h or leaves a lock that it doesn't hold.

#pragma once

#include <pthread.h>

#include "lib/base/annotate.h"
#include "lib/base/lock_rank.h"
#include "lib/base/status.h"

// In the flags word of Lock, Cond, Thread and ThreadKey: the record was allocated by its Create.
inline constexpr uint32_t kRecordAllocated = 1;

struct PELMO_CAPABILITY("lock") Lock {
    // Constant after creation.
    uint32_t flags;
    LockRank rank;

    pthread_mutex_t mutex;
};

// For a lock that lives as long as the process: ready before any constructor runs, never destroyed,
// and it cannot fail.
#define PELMO_LOCK_READY(rank) \
    { 0, rank, PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP }

[[nodiscard]] pelmoStatus Lock_Create(Lock** out, LockRank rank);
[[nodiscard]] pelmoStatus Lock_Init(Lock* lock, LockRank rank);
pelmoStatus Lock_Destroy(Lock* lock);

void Lock_Enter(Lock* lock) PELMO_ACQUIRE(lock);
void Lock_Leave(Lock* lock) PELMO_RELEASE(lock);

// Does the calling thread hold a lock that is further down than `rank`? For assertions: false in
// builds with NDEBUG.
[[nodiscard]] bool lockHoldsBelow(LockRank rank);

// Held from here to the end of the scope.
class PELMO_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Lock& lock) PELMO_ACQUIRE(lock) : held(lock) { Lock_Enter(&held); }
    ~LockGuard() PELMO_RELEASE() { Lock_Leave(&held); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Lock& held;
};
