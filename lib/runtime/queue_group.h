// Queue groups: queues that are dispatched as one, highest priority first, equal ones in turn.
//
// A group names its queues and a queue its groups by id; neither keeps the other alive, and an id
// that is gone is passed over.
//
// Failure: kStatusNotInitialized while the library is closed, kStatusInvalidQueueGroup and
// kStatusInvalidQueue for bad ids, the latter also for a queue that isn't in the group,
// kStatusNoMemory, also for a synchronous queue.
//
// Threads: any. A group's object lock stands outside a queue's.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/runtime/id.h"

struct Dpa;

struct QueueGroup {
    static constexpr IdType kIdType = IdType::kQueueGroup;
    IdHeader header;

    Cond cond;  // signalled at each post to a queue of the group

    // Guarded by the object lock: queue ids by descending priority, of equal ones the first added
    // first, as far as dispatch didn't rotate them.
    Dpa* queues;
};

[[nodiscard]] pelmoStatus pelmoQueueGroup_Create(uint32_t* out);
pelmoStatus pelmoQueueGroup_Destroy(uint32_t group);
[[nodiscard]] pelmoStatus pelmoQueueGroup_Add(uint32_t group, uint32_t queue);
pelmoStatus pelmoQueueGroup_Remove(uint32_t group, uint32_t queue);

// For queues.

// Signals the group's condition `times` times; an id that is gone is passed over.
void QueueGroup_Signal(uint32_t group, uint32_t times);

// A queue that ends leaves a group; nothing happens where it isn't in it.
void QueueGroup_Forget(uint32_t group, uint32_t queue);

// A queue whose priority changed takes its new place.
void QueueGroup_Reorder(uint32_t group, uint32_t queue);
