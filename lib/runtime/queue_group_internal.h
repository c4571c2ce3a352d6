// The queue group's record. The calls for applications are in lib/runtime/queue_group.h.
//
// Order of locks: a group's object lock, then a queue's.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/runtime/id.h"
#include "lib/runtime/queue_group.h"
#include "lib/runtime/queue_internal.h"

struct Dpa;

struct QueueGroup {
    static constexpr IdType kIdType = IdType::kQueueGroup;
    IdHeader header;

    Cond cond;  // signalled at each post to a queue of the group

    Wakes wakes PELMO_GUARDED_BY(header.lock);

    // Queue ids by descending priority. Queues of equal priority are in the order of joining, until
    // dispatch rotates them.
    Dpa* queues PELMO_GUARDED_BY(header.lock);
};

// The rest is called by queues.

// Signals the group's condition `times` times. False if the group is gone.
[[nodiscard]] bool QueueGroup_Signal(uint32_t group, uint32_t times);

// Removes a queue that ends from a group; nothing happens if it isn't in the group.
void QueueGroup_Forget(uint32_t group, uint32_t queue);

// Moves a queue whose priority changed to its new place. False if the group is gone.
[[nodiscard]] bool QueueGroup_Reorder(uint32_t group, uint32_t queue);
