// Dispatch: takes entries off a queue and runs their callbacks, with no lock of the library held.
//
// Seconds in all timed calls: below 0 waits without limit, 0 doesn't wait, above 0 waits at most so
// long. The limit is exact when nothing wakes the thread early; otherwise it counts from the first
// spurious wake-up.
//
// One step runs one callback: of one entry, or of up to 128 for vector listeners that share their
// callback, their group and their transport. A timer is armed again just before its callback, an IO
// event registered again just after it.
//
// Failure: kStatusSuccess when a step has run, even if it found only entries of destroyed events;
// kStatusTimeout; kStatusInterrupted for a wait that was ended by pelmoQueue_Wake or
// pelmoQueueGroup_Wake; kStatusInvalidQueue or kStatusInvalidQueueGroup for a bad id or an object
// destroyed meanwhile; kStatusNotInitialized once the library is closed; kStatusNotPermitted for a
// synchronous queue, which can only be polled.
//
// Threads: any number may dispatch one queue; each entry is run by one of them. Two threads may run
// two entries of one listener at the same time. The completions of pelmoEvent_DestroyEx and
// pelmoQueue_DestroyEx run here if callbacks were running at the destroy.

#pragma once

#include <stdint.h>

#include "../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

PELMO_NODISCARD pelmoStatus pelmoQueue_TimedDispatch(uint32_t queue, double seconds);

// The same, with all messages of a batch from one event.
PELMO_NODISCARD pelmoStatus pelmoQueue_TimedDispatchSingle(uint32_t queue, double seconds);

// One step of the first queue that has entries. Queues of equal priority take turns.
PELMO_NODISCARD pelmoStatus pelmoQueueGroup_TimedDispatch(uint32_t group, double seconds);

#ifdef __cplusplus
}
#endif
