// The counter behind global ids. Here for tests, which shrink the id space to see it wrap and run
// out, and put it back; to all others it is the id module's own.

#pragma once

#include <cstdint>

#include "lib/base/lock.h"
#include "lib/runtime/fixed_ids_internal.h"

struct IdCounter {
    uint32_t first = kFirstGlobalId;
    uint32_t last = UINT32_MAX;
    uint32_t previous = kLastFixedId;  // the id last given out
    bool wrapped = false;              // ids may be in use: from now on they are looked up
};

// The id lock guards what is the same for all types: the counter, and the global ids in use.
extern constinit Lock idLock;

// Survives the tables.
extern constinit IdCounter idCounter PELMO_GUARDED_BY(idLock);
