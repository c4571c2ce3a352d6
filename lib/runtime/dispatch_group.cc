// The dispatch of a queue group. dispatch.cc has that of a single queue.

#include <utility>

#include "lib/containers/dpa.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/dispatch_wait.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"

namespace {

uint32_t queueAtLocked(const QueueGroup* group, uint32_t place) PELMO_REQUIRES(group->header.lock) {
    return idFromItem(group->queues->items[place]);
}

// Counts the entries of all queues. Ids of destroyed queues are removed from the group on the way.
uint64_t countEntriesLocked(QueueGroup* group) PELMO_REQUIRES(group->header.lock) {
    uint64_t total = 0;
    for (uint32_t place = 0; place < group->queues->count;) {
        uint32_t count = 0;
        const pelmoStatus status = pelmoQueue_GetCount(queueAtLocked(group, place), &count);
        if (status == kStatusInvalidQueue) {
            dpaRemoveAt(group->queues, place);
            continue;
        }
        total += count;
        ++place;
    }
    return total;
}

// Several posts may have been merged into one signal, so a thread that leaves entries wakes the
// next one.
bool hasEntriesLocked(QueueGroup* group) PELMO_REQUIRES(group->header.lock) {
    const uint64_t total = countEntriesLocked(group);
    if (total > 1 && group->cond.waiters.load(std::memory_order_relaxed) > 0) {
        Cond_Signal(&group->cond);
    }
    return total != 0;
}

pelmoStatus awaitEntriesLocked(QueueGroup* group, double seconds)
    PELMO_REQUIRES(group->header.lock) {
    DispatchWait wait{seconds};
    pelmoStatus status = kStatusSuccess;
    const uint32_t wakesBefore = group->wakes.count;
    for (;;) {
        if (Id_IsInvalid(&group->header)) return kStatusInvalidQueueGroup;
        if (hasEntriesLocked(group) || dispatchToldToStop(group->header.id)) return kStatusSuccess;
        if (seconds == 0) return kStatusTimeout;
        if (status != kStatusSuccess) return status;
        if (group->wakes.end(wakesBefore)) return kStatusInterrupted;

        status = dispatchWaitStep(wait, &group->header, &group->cond);
        if (!libraryIsOpen()) return kStatusNotInitialized;
    }
}

bool isOfPriority(uint32_t id, uint32_t priority) {
    Held<Queue> queue;
    return queue.findLocked(id) == kStatusSuccess && queue->priority == priority;
}

// Moves the queue after all others of its priority, so that they take turns.
void rotateLocked(QueueGroup* group, uint32_t place, uint32_t priority)
    PELMO_REQUIRES(group->header.lock) {
    void** const items = group->queues->items;
    for (uint32_t next = place + 1; next < group->queues->count; ++place, ++next) {
        if (!isOfPriority(queueAtLocked(group, next), priority)) return;
        std::swap(items[place], items[next]);
    }
}

// False, with nothing held, when no queue has entries.
bool takeQueueLocked(QueueGroup* group, Held<Queue>& queue) PELMO_REQUIRES(group->header.lock) {
    for (uint32_t place = 0; place < group->queues->count; ++place) {
        if (queue.findLocked(queueAtLocked(group, place)) != kStatusSuccess) continue;
        if (Queue_CountLocked(queue.get()) == 0) {
            queue.release();
            continue;
        }
        const uint32_t priority = queue->priority;
        queue.leave();
        rotateLocked(group, place, priority);
        return true;
    }
    return false;
}

pelmoStatus dispatchById(uint32_t id, double seconds) {
    Held<QueueGroup> group;
    if (group.findLocked(id) != kStatusSuccess) return kStatusInvalidQueueGroup;
    const pelmoStatus status = awaitEntriesLocked(group.get(), seconds);
    if (status != kStatusSuccess) return status;

    Held<Queue> queue;
    if (!takeQueueLocked(group.get(), queue)) return kStatusSuccess;
    group.leave();
    // The queue may be empty or destroyed by now; this still counts as a step.
    (void)Queue_Dispatch(queue.get(), 0.0, DispatchBatch::kMixedEvents);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus QueueGroup_DispatchId(uint32_t group, double seconds) {
    traceLine(kTraceDispatch, "pelmoQueueGroup_TimedDispatch(%u, %f)", group, seconds);
    return dispatchById(group, seconds);
}

pelmoStatus pelmoQueueGroup_TimedDispatch(uint32_t group, double seconds) {
    traceLine(kTraceDispatch, "pelmoQueueGroup_TimedDispatch(%u, %f)", group, seconds);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    return dispatchById(group, seconds);
}
