// The counter behind global ids. Here for tests, which shrink the id space to see it wrap and run
// out, and put it back; to all others it is the id module's own.

#pragma once

#include <cstdint>

#include "lib/runtime/fixed_ids_internal.h"

struct IdCounter {
    uint32_t first = kFirstGlobalId;
    uint32_t last = UINT32_MAX;
    uint32_t previous = kLastFixedId;  // the id last given out
    bool wrapped = false;              // ids may be in use: from now on they are looked up
};

// Guarded by the id lock. Survives the tables.
extern IdCounter idCounter;
