// The queue group's record. The calls for applications stand in lib/runtime/queue_group.h.
//
// Order of locks: a group's object lock, then a queue's.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/runtime/id.h"
#include "lib/runtime/queue_group.h"

struct Dpa;

struct QueueGroup {
    static constexpr IdType kIdType = IdType::kQueueGroup;
    IdHeader header;

    Cond cond;  // signalled at each post to a queue of the group

    // Queue ids by descending priority, of equal ones the first added first, as far as dispatch
    // didn't rotate them.
    Dpa* queues PELMO_GUARDED_BY(header.lock);
};

// For queues.

// Signals the group's condition `times` times; an id that is gone is passed over.
void QueueGroup_Signal(uint32_t group, uint32_t times);

// A queue that ends leaves a group; nothing happens where it isn't in it.
void QueueGroup_Forget(uint32_t group, uint32_t queue);

// A queue whose priority changed takes its new place.
void QueueGroup_Reorder(uint32_t group, uint32_t queue);
