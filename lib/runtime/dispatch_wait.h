// The wait that the dispatch loops of queues and of groups share.
//
// A wait with a limit is exact when nothing wakes the thread early. From the first spurious wake-up
// on, the time between it and the latest one counts against the limit.
//
// Threads: a DispatchWait is used by one thread.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/status.h"

struct Cond;
struct IdHeader;

struct DispatchWait {
    double seconds;      // as in all timed calls (lib/runtime/dispatch.h)
    uint32_t wakes = 0;  // spurious wake-ups so far
    double firstWake = 0;
    double lastWake = 0;
};

// Sleeps once; the object's lock is held on entry and return. The caller then tests its condition.
// kStatusTimeout once the time is up, at once for a limit of 0.
[[nodiscard]] pelmoStatus dispatchWaitStep(DispatchWait& wait, IdHeader* object, Cond* cond);

// From now on the calling thread's waits on a queue or group end as soon as `*word` holds its id.
// Null: nothing ends them.
void dispatchSetStopWord(const std::atomic<uint32_t>* word);
[[nodiscard]] const std::atomic<uint32_t>* dispatchStopWord();

// Was the calling thread's dispatcher asked to stop while it waits on that queue or group? The
// caller holds the object's lock, and so does the thread that asks for the stop: its wake-up can't
// fall between this test and the sleep.
[[nodiscard]] bool dispatchToldToStop(uint32_t id);
