// The queue's record. The calls stand in lib/runtime/queue.h; posting and dispatch work on the
// record.
//
// Two rings: posters push to `pending` under the object lock, a dispatch works through `ready`
// under the data lock alone, and they meet only where a dispatch that ran dry swaps the two. An
// entry is a message; `deliveryEvent` tells the event that fired, `deliveryClosure` its closure.
// The ring owns one reference to it.

#pragma once

#include <algorithm>
#include <cstdint>

#include "lib/base/status.h"
#include "lib/containers/dpa.h"
#include "lib/runtime/callbacks.h"
#include "lib/runtime/id.h"
#include "lib/runtime/queue.h"

struct EntryRing;

struct Queue {
    static constexpr IdType kIdType = IdType::kQueue;
    IdHeader header;

    // Constant after creation.
    bool synchronous;  // read by polls alone: no dispatch, hook, limit or group
    Cond cond;         // signalled at a post while `waiters` isn't 0
    Lock dataLock;

    const char* name PELMO_GUARDED_BY(header.lock);
    bool nameOwned PELMO_GUARDED_BY(header.lock);      // on the heap
    EntryRing* pending PELMO_GUARDED_BY(header.lock);  // swapped with `ready` under both locks
    uint32_t waiters PELMO_GUARDED_BY(header.lock);    // threads in a wait on `cond`
    LimitPolicy limitPolicy PELMO_GUARDED_BY(header.lock);
    uint32_t priority PELMO_GUARDED_BY(header.lock);
    uint32_t maxEvents PELMO_GUARDED_BY(header.lock);      // 0: no limit
    uint32_t discardAmount PELMO_GUARDED_BY(header.lock);  // entries that one discard removes
    Dpa* groups PELMO_GUARDED_BY(header.lock);  // ids of those that hold this queue; null: none
    pelmoQueueHook hook PELMO_GUARDED_BY(header.lock);
    void* hookClosure PELMO_GUARDED_BY(header.lock);

    EntryRing* ready PELMO_GUARDED_BY(dataLock);
    uint32_t dispatching PELMO_GUARDED_BY(dataLock);  // calls between taking entries and finishing
    pelmoQueueCompletion completion PELMO_GUARDED_BY(dataLock);
    void* completionClosure PELMO_GUARDED_BY(dataLock);
};

// A fixed id, or 0 for a global one; `out` may be null. The name isn't copied: a constant, unless
// `nameOwned`, which hands over a heap text, on success only. The open flag isn't tested.
// kStatusNoMemory for any failure.
[[nodiscard]] pelmoStatus Queue_Create(
    uint32_t* out, uint32_t fixedId, const char* name, bool nameOwned, bool synchronous);

// What one discard of policy kLimitDiscardFirst or kLimitDiscardLast drops; nothing under the
// others, or on a synchronous queue. The caller holds the object lock, and no event's.
void Queue_Discard(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// The same walk from the newest entry whatever the policy: makes room for a limit advisory.
void Queue_DiscardNewest(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// `pending` and `ready`. The caller holds the object lock.
[[nodiscard]] uint32_t Queue_CountLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// The way into every public call: kStatusNotInitialized, kStatusInvalidQueue, or the queue, locked.
[[nodiscard]] pelmoStatus queueFind(Held<Queue>& queue, uint32_t id)
    PELMO_ASSERTS(queue->header.lock);

// Has the queue come to its limit? The caller holds the object lock, and no event's.
[[nodiscard]] bool queueIsFullLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// Tells of a limit that was met. The queue's lock is left for it and taken again: all that the lock
// guards may have changed meanwhile, and the queue be invalid.
void queueTellLimit(Held<Queue>& queue) PELMO_REQUIRES(queue->header.lock);

// The groups of a queue, as they were when this was made under its object lock, to be visited
// without it: a group's lock stands outside.
//
// Ids are copied 32 at a time, the last ones first, and the queue is asked again for what is left,
// so that a visit can't fail for want of memory. It misses no group: one that joins goes to the end
// and looks at the queue by itself, and one that leaves only brings the last one forward.
class QueueGroups {
  public:
    // Unchecked: the lock is told by the argument, and asked for by the member.
    explicit QueueGroups(Queue* from) PELMO_REQUIRES(from->header.lock) PELMO_UNCHECKED_LOCKING
        : queue(from) {
        takeLocked();
    }

    // The caller holds a reference to the queue, and no lock.
    template <typename Visit>
    void forEach(Visit visit) {
        for (;;) {
            for (uint32_t i = 0; i < count; ++i)
                visit(ids[i]);
            if (left == 0) return;
            Id_Enter(&queue->header);
            takeLocked();
            Id_Leave(&queue->header);
        }
    }

  private:
    static constexpr uint32_t kAtATime = 32;

    void takeLocked() PELMO_REQUIRES(queue->header.lock) {
        left = std::min(left, queue->groups != nullptr ? queue->groups->count : 0);
        count = std::min(left, kAtATime);
        left -= count;
        for (uint32_t i = 0; i < count; ++i)
            ids[i] = idFromItem(queue->groups->items[left + i]);
    }

    Queue* const queue;
    uint32_t left = UINT32_MAX;  // ahead of those copied
    uint32_t count = 0;
    uint32_t ids[kAtATime];
};
