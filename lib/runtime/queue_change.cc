// Changes of a queue that concern its groups: its priority, and its destruction.

#include <utility>

#include "lib/containers/dpa.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"

pelmoStatus pelmoQueue_DestroyEx(uint32_t queue, pelmoQueueCompletion completion, void* closure) {
    traceLine(kTraceQueue, "pelmoQueue_DestroyEx(%u, %p, %p)", queue,
              reinterpret_cast<const void*>(completion), tracePointer(closure));
    if (queue == kDefaultQueueId && libraryIsOpen()) return kStatusNotPermitted;
    Held<Queue> held;
    if (held.destroyLocked(queue) != kStatusSuccess) return kStatusInvalidQueue;

    Dpa* groups = std::exchange(held->groups, nullptr);
    EntryRing* const pending = std::exchange(held->pending, nullptr);
    EntryRing* ready = nullptr;
    bool completesHere = false;
    {
        const LockGuard data(held->dataLock);
        ready = std::exchange(held->ready, nullptr);
        Cond_Broadcast(&held->cond);
        if (completion != nullptr && held->running != 0) {
            held->completion = completion;
            held->completionClosure = closure;
        } else {
            completesHere = completion != nullptr;
        }
    }
    held.release();
    // With no lock held, as there may be many. Events keep the queue's record, so that its
    // destructor may come much later.
    msgReleaseRing(ready);
    msgReleaseRing(pending);

    // A group's lock is taken before a queue's.
    for (uint32_t i = 0; groups != nullptr && i < groups->count; ++i) {
        QueueGroup_Forget(idFromItem(groups->items[i]), queue);
    }
    dpaDestroy(groups);
    if (completesHere) completion(queue, closure);
    return kStatusSuccess;
}

pelmoStatus pelmoQueue_SetPriority(uint32_t queue, uint32_t priority) {
    traceLine(kTraceQueue, "pelmoQueue_SetPriority(%u, %u)", queue, priority);
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, queue); status != kStatusSuccess) return status;
    if (held->priority == priority) return kStatusSuccess;
    held->priority = priority;
    QueueGroups groups(held.get());
    held.leave();
    groups.forEach([queue](uint32_t group) { return QueueGroup_Reorder(group, queue); });
    return kStatusSuccess;
}
