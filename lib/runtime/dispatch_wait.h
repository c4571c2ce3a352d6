// How a dispatch waits, on a queue or on a group: what their loops share.
//
// A wait with a limit is exact where nothing wakes the thread. From the first stray wake-up on, the
// time between it and the latest one counts against the limit.
//
// Threads: a DispatchWait belongs to its thread.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/status.h"

struct Cond;
struct IdHeader;

struct DispatchWait {
    double seconds;      // as all timed calls take it
    uint32_t wakes = 0;  // that gave nothing
    double firstWake = 0;
    double lastWake = 0;
};

// One sleep with the object's lock held; the caller then looks at what it waits for. kStatusTimeout
// once the time is up, and at once where none was given.
[[nodiscard]] pelmoStatus dispatchWaitStep(DispatchWait& wait, IdHeader* object, Cond* cond);

// The calling thread's waits on the queue or group of that id end as soon as the word holds the id.
// Null: nothing ends them.
void dispatchSetStopWord(const std::atomic<uint32_t>* word);
[[nodiscard]] const std::atomic<uint32_t>* dispatchStopWord();

// Has the calling thread's dispatcher been told to end while it waits on that queue or group? To be
// asked with the object's lock held, which the one who tells holds too: so the wake-up that follows
// can't fall between the question and the sleep.
[[nodiscard]] bool dispatchToldToStop(uint32_t id);
