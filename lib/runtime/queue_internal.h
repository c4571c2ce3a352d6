// The queue's record. lib/runtime/queue.h has the calls; posting and dispatch work on the record.
//
// Two rings: posters push to `pending` under the object lock, a dispatch takes from `ready` under
// the data lock alone, and they contend only when a dispatch finds `ready` empty and swaps the two
// rings. An entry is a message; its `deliveryEvent` is the event that fired and `deliveryClosure`
// that event's closure. The ring owns one reference to the message.

#pragma once

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "lib/base/status.h"
#include "lib/containers/dpa.h"
#include "lib/runtime/callbacks.h"
#include "lib/runtime/id.h"
#include "lib/runtime/queue.h"

struct EntryRing;

// The calls of a hook for one post, on the stack of the thread that makes them.
struct HookRun {
    // Guarded by the queue's object lock.
    HookRun* next;
    uint64_t change;  // the queue's `hookChange` when it began

    // Of its own thread alone.
    pthread_t thread;
    pelmoQueueHook hook;  // null once the hook itself has removed it
    void* closure;
};

// Calls of pelmoQueue_Wake for one queue or group; guarded by its object lock. A wake ends the
// waits that it meets, or the next one.
struct Wakes {
    uint32_t count;  // those that met a wait
    bool kept;       // one met none

    void add(bool hasWaiters) {
        if (hasWaiters) {
            ++count;
        } else {
            kept = true;
        }
    }

    // Is the wait to end that began when there were `before`?
    [[nodiscard]] bool end(uint32_t before) {
        return count != before || std::exchange(kept, false);
    }
};

struct Queue {
    static constexpr IdType kIdType = IdType::kQueue;
    IdHeader header;

    // Constant after creation.
    bool synchronous;  // can only be polled: no dispatch, hook, limit or group
    Cond cond;         // signalled at a post while `waiters` isn't 0
    Cond hookEnded;    // broadcast at the end of a hook's run while `hookWaiters` isn't 0
    Cond eventEnded;   // broadcast at the end of a destroyed event while `eventWaiters` isn't 0
    Lock dataLock;

    const char* name PELMO_GUARDED_BY(header.lock);
    bool nameOwned PELMO_GUARDED_BY(header.lock);  // on the heap
    // Swapped with `ready` under both locks. Both rings are null once the queue was destroyed.
    EntryRing* pending PELMO_GUARDED_BY(header.lock);
    uint32_t waiters PELMO_GUARDED_BY(header.lock);  // threads in a wait on `cond`
    Wakes wakes PELMO_GUARDED_BY(header.lock);
    pelmoLimitPolicy limitPolicy PELMO_GUARDED_BY(header.lock);
    uint32_t priority PELMO_GUARDED_BY(header.lock);
    uint32_t maxEvents PELMO_GUARDED_BY(header.lock);      // 0: no limit
    uint32_t discardAmount PELMO_GUARDED_BY(header.lock);  // entries that one discard removes
    Dpa* groups PELMO_GUARDED_BY(header.lock);             // ids of its groups; null: none
    pelmoQueueHook hook PELMO_GUARDED_BY(header.lock);
    void* hookClosure PELMO_GUARDED_BY(header.lock);
    uint64_t hookChange PELMO_GUARDED_BY(header.lock);   // counts the calls that set the hook
    HookRun* hookRuns PELMO_GUARDED_BY(header.lock);     // those under way
    uint32_t hookWaiters PELMO_GUARDED_BY(header.lock);  // threads in a wait on `hookEnded`

    EntryRing* ready PELMO_GUARDED_BY(dataLock);
    uint32_t eventWaiters PELMO_GUARDED_BY(dataLock);  // threads in a wait on `eventEnded`

    // Dispatches between taking entries and finishing, and runs of the hook.
    uint32_t running PELMO_GUARDED_BY(dataLock);
    pelmoQueueCompletion completion PELMO_GUARDED_BY(dataLock);
    void* completionClosure PELMO_GUARDED_BY(dataLock);
};

// `fixedId` 0 gives the queue a global id; `out` may be null. The name isn't copied: it is a
// constant, or, with `nameOwned`, a heap text that the queue takes over on success. The open flag
// isn't tested. kStatusNoMemory for any failure.
[[nodiscard]] pelmoStatus Queue_Create(
    uint32_t* out, uint32_t fixedId, const char* name, bool nameOwned, bool synchronous);

// Makes one discard under policy kLimitDiscardFirst or kLimitDiscardLast; under other policies and
// on a synchronous queue it does nothing. The caller holds the object lock and no event's lock.
void Queue_Discard(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// Discards from the newest entry on, whatever the policy, to make room for a limit advisory.
void Queue_DiscardNewest(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// Counts the entries of `pending` and `ready`. The caller holds the object lock.
[[nodiscard]] uint32_t Queue_CountLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// The first step of every public call: finds and locks the queue, or answers kStatusNotInitialized
// or kStatusInvalidQueue.
[[nodiscard]] pelmoStatus queueFind(Held<Queue>& queue, uint32_t id)
    PELMO_ASSERTS(queue->header.lock);

// Has the queue reached its limit? The caller holds the object lock and no event's lock.
[[nodiscard]] bool queueIsFullLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock);

// Sends the advisory of a limit that was reached. The queue's lock is released for it and taken
// again: all that the lock guards may have changed meanwhile, and the queue may be invalid.
void queueReportLimit(Held<Queue>& queue) PELMO_REQUIRES(queue->header.lock);

// The completion of a destroyed queue, and its closure; none when there is nothing to call.
struct QueueEnd {
    pelmoQueueCompletion completion;
    void* closure;

    void call(uint32_t queue) const {
        if (completion != nullptr) completion(queue, closure);
    }
};

// One of those counted in `running` has finished. The caller calls what it gets with no lock held.
[[nodiscard]] QueueEnd queueFinishLocked(Queue* queue) PELMO_REQUIRES(queue->dataLock);

// Counts a run of the hook. False when there is none to call.
[[nodiscard]] bool hookBeginLocked(Queue* queue, HookRun& run) PELMO_REQUIRES(queue->header.lock);

// Calls the hook so many times, and finishes the run. The caller holds a reference and no lock.
void hookRun(Queue* queue, HookRun& run, uint32_t times);

// The groups of a queue at the time when this was made under its object lock. They are visited
// without that lock, since a group's lock is taken before a queue's.
//
// Ids are copied 32 at a time, the last ones first, and the rest is read from the queue later, so a
// visit needs no memory. It misses no group: one that is joined is added at the end and reads the
// queue's state itself, and one that is left only moves the last id forward. Ids of groups that are
// gone are taken off the queue's list.
class QueueGroups {
  public:
    // The lock checker can't see that the argument's lock is the one that the member needs.
    explicit QueueGroups(Queue* from) PELMO_REQUIRES(from->header.lock) PELMO_UNCHECKED_LOCKING
        : queue(from) {
        takeLocked();
    }

    // visit(id) is false for a group that is gone. The caller holds a reference to the queue, and
    // no lock.
    template <typename Visit>
    void forEach(Visit visit) {
        for (;;) {
            uint32_t gone = 0;
            for (uint32_t i = 0; i < count; ++i)
                gone |= visit(ids[i]) ? 0 : uint32_t{1} << i;
            if (left == 0 && gone == 0) return;
            Id_Enter(&queue->header);
            if (gone != 0) dropLocked(gone);
            takeLocked();
            Id_Leave(&queue->header);
        }
    }

  private:
    static constexpr uint32_t kAtATime = 32;

    // Of the ids copied, those whose bit is set.
    void dropLocked(uint32_t gone) PELMO_REQUIRES(queue->header.lock);

    void takeLocked() PELMO_REQUIRES(queue->header.lock) {
        left = std::min(left, queue->groups != nullptr ? queue->groups->count : 0);
        count = std::min(left, kAtATime);
        left -= count;
        for (uint32_t i = 0; i < count; ++i)
            ids[i] = idFromItem(queue->groups->items[left + i]);
    }

    Queue* const queue;
    uint32_t left = UINT32_MAX;  // ids before those copied
    uint32_t count = 0;
    uint32_t ids[kAtATime];
};
