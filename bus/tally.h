// Messages counted as they come in, from any thread: how many, their bytes, and from when to when.
//
// There is one per process, since listeners that take many messages in one call have no closure.
//
// Threads: any may read. The queue that counts is dispatched by one thread.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/pelmo.h"

struct Tally {
    std::atomic<uint64_t> messages = 0;
    std::atomic<uint64_t> bytes = 0;
    std::atomic<int64_t> first = 0;  // on the steady clock; 0 for none
    std::atomic<int64_t> last = 0;

    // Set at the start.
    uint64_t most = UINT64_MAX;  // messages that are counted
    bool done = false;           // the thread that dispatches sets and reads it
};

extern Tally benchTally;

// A listener's callback.
void tallyTake(pelmoMsg** messages, uint32_t count);
