// What the library keeps of itself between opens and closes. For the files of this folder.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/status.h"

struct Dpa;

struct LibraryState {
    // Outermost of the library's locks. Recursive: a queue that ends within the close calls back
    // into it.
    Lock lock = PELMO_LOCK_READY(LockRank::kLibrary);

    // Constant behind the set-up's gate.
    bool setUpDone = false;  // stays false where the set-up failed
    Cond closedCond = {};    // broadcast at the end of the last close

    bool tablesReady PELMO_GUARDED_BY(lock) = false;
    uint32_t openCount PELMO_GUARDED_BY(lock) = 0;   // opens without their close
    uint32_t closeCount PELMO_GUARDED_BY(lock) = 0;  // last closes so far; wraps around
    uint32_t workDispatcher PELMO_GUARDED_BY(lock) = 0;

    // Queues that a close has destroyed and whose last callback is awaited, and one for the close
    // itself while it counts them.
    uint32_t closingQueues PELMO_GUARDED_BY(lock) = 0;

    // Ids of events that end with the last of these queues; null: none.
    Dpa* closingEvents PELMO_GUARDED_BY(lock) = nullptr;
};

extern constinit LibraryState library;

// Once for the process. kStatusInitFailed where it failed, kStatusOsError for a caller that waited
// for another's in vain.
[[nodiscard]] pelmoStatus processSetUp();

// Id tables and the pools of buffers and messages; they stay over closes. kStatusNoMemory, and none
// of them stands.
[[nodiscard]] pelmoStatus processTablesLocked() PELMO_REQUIRES(library.lock);

// Ends what an open has made for the library itself, and doesn't mind what isn't there.
void fixedObjectsEndLocked() PELMO_REQUIRES(library.lock);
