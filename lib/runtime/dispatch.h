// Dispatch: takes entries off a queue and runs their callbacks, with no lock of the library held.
//
// Seconds of all timed calls: below 0 wait without limit, 0 don't wait, above wait at most so long.
// The time is exact where nothing wakes the thread, and counts from the first stray wake-up
// otherwise.
//
// One step runs one callback: of one entry, or of up to 128 for vector listeners that share their
// callback, their group and their transport. A timer is armed again just before its callback, an IO
// event registered again just after it.
//
// Failure: kStatusSuccess where a step has run, also if it found only entries of dead events;
// kStatusTimeout; kStatusInvalidQueue or kStatusInvalidQueueGroup for a bad id or one destroyed
// meanwhile; kStatusNotInitialized once the library is closed; kStatusNotPermitted for a
// synchronous queue, which is read by polls.
//
// Threads: any number may dispatch one queue; each entry goes to one of them. Two may run two
// entries of one listener at the same time. Completions of pelmoEvent_DestroyEx and
// pelmoQueue_DestroyEx run here where callbacks were under way.

#pragma once

#include <cstdint>

#include "../base/status.h"

[[nodiscard]] pelmoStatus pelmoQueue_TimedDispatch(uint32_t queue, double seconds);

// The same with a batch restricted to one event.
[[nodiscard]] pelmoStatus pelmoQueue_TimedDispatchSingle(uint32_t queue, double seconds);

// One step of the first queue that has entries. Queues of equal priority take turns.
[[nodiscard]] pelmoStatus pelmoQueueGroup_TimedDispatch(uint32_t group, double seconds);
