// The library's own state across opens and closes. Only the files of this folder use it.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/status.h"

struct Dpa;

struct LibraryState {
    // The outermost lock of the library. It is recursive, since the completion of a queue that ends
    // during the close takes it again.
    Lock lock = PELMO_LOCK_READY(LockRank::kLibrary);

    // Constant once the one-time set-up has run.
    bool setupDone = false;  // stays false if the set-up failed
    Cond closedCond = {};    // broadcast at the end of the last close

    bool tablesReady PELMO_GUARDED_BY(lock) = false;
    uint32_t openCount PELMO_GUARDED_BY(lock) = 0;   // opens not yet matched by a close
    uint32_t closeCount PELMO_GUARDED_BY(lock) = 0;  // last closes so far; wraps around
    uint32_t workDispatcher PELMO_GUARDED_BY(lock) = 0;

    // The number of queues that a close has destroyed and whose last callback hasn't returned, plus
    // one while the close is still counting them.
    uint32_t closingQueues PELMO_GUARDED_BY(lock) = 0;

    // Ids of the events that are destroyed after the last of these queues; null when there are
    // none.
    Dpa* closingEvents PELMO_GUARDED_BY(lock) = nullptr;
};

extern constinit LibraryState library;

// Runs once per process. kStatusInitFailed when it failed, kStatusOsError for a caller that gave up
// waiting for another thread's set-up.
[[nodiscard]] pelmoStatus processSetUp();

// Makes the id tables and the pools of buffers, messages and queued writes, which outlive every
// close. On kStatusNoMemory none of them exists.
[[nodiscard]] pelmoStatus processTablesLocked() PELMO_REQUIRES(library.lock);

// Ends what an open has made for the library itself. Missing parts are skipped.
void fixedObjectsEndLocked() PELMO_REQUIRES(library.lock);
