// The counter behind global ids. Only the id module uses it, and tests, which shrink the id space
// to make it wrap or run out, and restore it.

#pragma once

#include <cstdint>

#include "lib/base/lock.h"
#include "lib/runtime/fixed_ids_internal.h"

struct IdCounter {
    uint32_t first = kFirstGlobalId;
    uint32_t last = UINT32_MAX;
    uint32_t previous = kLastFixedId;  // the id last given out
    bool wrapped = false;  // an id may be in use, so each is looked up before it is given out
};

// The id lock guards what all types share: the counter and the global ids in use.
extern constinit Lock idLock;

// It outlives the id tables.
extern constinit IdCounter idCounter PELMO_GUARDED_BY(idLock);
