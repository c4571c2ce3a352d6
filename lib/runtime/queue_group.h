// Queue groups: queues that are dispatched as one, highest priority first, equal ones in turn.
//
// A group names its queues and a queue its groups by id; neither keeps the other alive, and ids of
// destroyed objects are skipped.
//
// Failure: kStatusNotInitialized while the library is closed, kStatusInvalidQueueGroup and
// kStatusInvalidQueue for bad ids, the latter also for a queue that isn't in the group,
// kStatusNoMemory, also for a synchronous queue.
//
// Threads: any.

#pragma once

#include <stdint.h>

#include "../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

PELMO_NODISCARD pelmoStatus pelmoQueueGroup_Create(uint32_t* out);
pelmoStatus pelmoQueueGroup_Destroy(uint32_t group);
PELMO_NODISCARD pelmoStatus pelmoQueueGroup_Add(uint32_t group, uint32_t queue);
pelmoStatus pelmoQueueGroup_Remove(uint32_t group, uint32_t queue);

// As pelmoQueue_Wake (queue.h), for threads that dispatch the group. Signal handlers may call it.
pelmoStatus pelmoQueueGroup_Wake(uint32_t group);

#ifdef __cplusplus
}
#endif
