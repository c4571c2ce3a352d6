// A queue's limit: its policy, and which entries a discard drops.

#include <cassert>
#include <cstdlib>

#include "lib/base/text.h"
#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"

namespace {

bool argumentsAgree(uint32_t policy, uint32_t maxEvents, uint32_t discardAmount) {
    switch (policy) {
        case kLimitNone:
            return maxEvents == 0 && discardAmount == 0;
        case kLimitDiscardNew:
            return maxEvents != 0 && discardAmount == 1;
        case kLimitDiscardFirst:
        case kLimitDiscardLast:
            return maxEvents != 0 && discardAmount <= maxEvents;
        default:
            return false;
    }
}

// The place of an entry. The places of `ready` come before those of `pending`, so that the two
// rings are walked as one, without moving entries from one to the other, which could run out of
// memory.
struct Place {
    EntryRing* ring;
    uint32_t slot;
};

Place placeAt(const Queue* queue, uint32_t place)
    PELMO_REQUIRES(queue->header.lock, queue->dataLock) {
    EntryRing* const ready = queue->ready;
    if (place < ready->count) return {ready, EntryRing_Slot(ready, place)};
    return {queue->pending, EntryRing_Slot(queue->pending, place - ready->count)};
}

// Timer and IO entries stay: their dispatch arms their events again, so a dropped one would never
// fire again. So does the end of a request, of which the application would never learn.
bool mayDrop(const pelmoMsg* entry) {
    Held<Event> event;
    if (event.find(entry->deliveryEvent) != kStatusSuccess) return true;
    return event->kind == kEventListener && !msgIsNoReply(entry);
}

bool dropAt(const Queue* queue, uint32_t at) PELMO_REQUIRES(queue->header.lock, queue->dataLock) {
    const Place place = placeAt(queue, at);
    auto* const entry = static_cast<pelmoMsg*>(place.ring->slots[place.slot]);
    if (!mayDrop(entry)) return false;
    EntryRing_RemoveAt(place.ring, place.slot);
    msgRelease(entry);
    return true;
}

void discardOldest(Queue* queue) PELMO_REQUIRES(queue->header.lock) {
    const LockGuard data(queue->dataLock);
    uint32_t left = queue->discardAmount;
    uint32_t count = queue->ready->count + queue->pending->count;
    for (uint32_t at = 0; left > 0 && at < count;) {
        if (dropAt(queue, at)) {
            --left;
            --count;
        } else {
            ++at;
        }
    }
}

}  // namespace

void Queue_DiscardNewest(Queue* queue) {
    const LockGuard data(queue->dataLock);
    uint32_t left = queue->discardAmount;
    for (uint32_t at = queue->ready->count + queue->pending->count; left > 0 && at > 0;) {
        if (dropAt(queue, --at)) --left;
    }
}

void Queue_Discard(Queue* queue) {
    if (queue->synchronous) return;
    if (queue->limitPolicy == kLimitDiscardFirst) discardOldest(queue);
    if (queue->limitPolicy == kLimitDiscardLast) Queue_DiscardNewest(queue);
}

bool queueIsFullLocked(Queue* queue) {
    return queue->limitPolicy != kLimitNone && Queue_CountLocked(queue) >= queue->maxEvents;
}

void queueReportLimit(Held<Queue>& queue) {
    // The name may change as soon as the lock is released.
    char* name = concat2(queue->name, "");
    queue.leave();
    assert(!lockHoldsBelow(LockRank::kLibrary));  // listeners' queues may have hooks
    if (name != nullptr && transportOps.sendAdvisory != nullptr) {
        // The post goes on even if the advisory can't be sent.
        (void)transportOps.sendAdvisory(kIntraProcessTransportId, "WARN", "SYSTEM",
                                        "QUEUE.LIMIT_EXCEEDED", name);
    }
    std::free(name);
    queue.enter();
}

pelmoStatus pelmoQueue_GetLimitPolicy(uint32_t queue,
                                      uint32_t* outPolicy,
                                      uint32_t* outMaxEvents,
                                      uint32_t* outDiscardAmount) {
    traceLine(kTraceQueue, "pelmoQueue_GetLimitPolicy(%u, %p, %p, %p)", queue,
              tracePointer(outPolicy), tracePointer(outMaxEvents), tracePointer(outDiscardAmount));
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, queue); status != kStatusSuccess) return status;
    if (outPolicy == nullptr || outMaxEvents == nullptr || outDiscardAmount == nullptr) {
        return kStatusInvalidArgument;
    }
    *outPolicy = held->limitPolicy;
    *outMaxEvents = held->maxEvents;
    *outDiscardAmount = held->discardAmount;
    return kStatusSuccess;
}

pelmoStatus pelmoQueue_SetLimitPolicy(uint32_t queue,
                                      uint32_t policy,
                                      uint32_t maxEvents,
                                      uint32_t discardAmount) {
    traceLine(kTraceQueue, "pelmoQueue_SetLimitPolicy(%u, %u, %u, %u)", queue, policy, maxEvents,
              discardAmount);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (!argumentsAgree(policy, maxEvents, discardAmount)) return kStatusArgumentsConflict;
    if (queue == kDefaultQueueId) return kStatusNotPermitted;
    Held<Queue> held;
    if (const pelmoStatus status = queueFind(held, queue); status != kStatusSuccess) return status;
    if (held->synchronous) return kStatusNotPermitted;

    held->limitPolicy = static_cast<pelmoLimitPolicy>(policy);
    held->maxEvents = maxEvents;
    held->discardAmount = discardAmount;
    if (Queue_CountLocked(held.get()) > maxEvents) Queue_Discard(held.get());
    return kStatusSuccess;
}
