#include "lib/runtime/post.h"

#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/tracing.h"

namespace {

// What becomes of a post to a queue at its limit.
enum class AtLimit {
    kNoMessage,  // a listener's that has nothing to post
    kAdvisory,   // reports a limit itself: gets a place, and causes no other
    kRefused,    // its message is gone
    kPosted,
};

AtLimit judgeLocked(const Queue* queue, Event* event) PELMO_REQUIRES(queue->header.lock) {
    if (event->kind != kEventListener) return AtLimit::kPosted;
    EntryRing* const inbox = event->listener.inbox;
    if (inbox == nullptr || inbox->count == 0) return AtLimit::kNoMessage;

    // The newest is the one that this post is for. It stays where it is unless it is refused: if
    // it were out of the ring while the locks are released, it might find no room on its return.
    auto* const newest = static_cast<pelmoMsg*>(inbox->slots[inbox->tail]);
    if (msgIsLimitAdvisory(newest)) return AtLimit::kAdvisory;
    if (queue->limitPolicy != kLimitDiscardNew) return AtLimit::kPosted;
    EntryRing_PopBack(inbox);
    msgRelease(newest);
    return AtLimit::kRefused;
}

// Under the queue's lock, which is released and taken again if an advisory is sent.
// kStatusQueueLimit ends the post.
pelmoStatus meetLimit(Held<Queue>& queue, Event* event) PELMO_REQUIRES(queue->header.lock) {
    Id_Enter(&event->header);
    const AtLimit outcome = judgeLocked(queue.get(), event);
    Id_Leave(&event->header);

    if (outcome == AtLimit::kNoMessage) return kStatusQueueLimit;
    if (outcome == AtLimit::kAdvisory) {
        if (queue->limitPolicy == kLimitDiscardNew) {
            Queue_DiscardNewest(queue.get());
        } else if (queue->discardAmount == 1) {
            queue->discardAmount = 2;  // a place for it as well, from the next discard on
        }
        return kStatusSuccess;
    }
    Queue_Discard(queue.get());
    queueReportLimit(queue);
    if (outcome == AtLimit::kRefused) return kStatusQueueLimit;
    return Id_IsInvalid(&queue->header) ? kStatusInvalidQueue : kStatusSuccess;
}

// Null when a listener has nothing to post.
pelmoStatus takeEntryLocked(Event* event, pelmoMsg** out) {
    if (event->kind != kEventListener) return pelmoMsg_Create(out);
    EntryRing* const inbox = event->listener.inbox;
    *out = inbox != nullptr ? static_cast<pelmoMsg*>(EntryRing_PopFront(inbox)) : nullptr;
    return kStatusSuccess;
}

pelmoStatus pushLocked(Queue* queue, pelmoMsg* entry) PELMO_REQUIRES(queue->header.lock) {
    if (EntryRing_PushBack(queue->pending, entry)) return kStatusSuccess;
    msgRelease(entry);
    return kStatusNoMemory;
}

void address(pelmoMsg* entry, const Event* event) {
    entry->deliveryEvent = event->header.id;
    entry->deliveryClosure = event->closure;
}

pelmoStatus postEntryLocked(Queue* queue, Event* event, bool& posted)
    PELMO_REQUIRES(queue->header.lock) {
    if (Id_IsInvalid(&event->header)) return kStatusInvalidEvent;
    pelmoMsg* entry = nullptr;
    pelmoStatus status = takeEntryLocked(event, &entry);
    if (status != kStatusSuccess || entry == nullptr) return status;

    address(entry, event);
    if (event->kind == kEventListener) {
        traceMessage(kTraceReceive, entry, "Message %p posted to listener queue for subject %s",
                     tracePointer(entry), traceText(event->listener.subject));
    }
    status = pushLocked(queue, entry);
    posted = status == kStatusSuccess;
    return status;
}

// Under the queue's lock, which is released and taken again if a limit is met. `posted` says
// whether there is a new entry. What a post reads of a timer or IO event never changes, so that
// their locks aren't needed.
pelmoStatus postLocked(Held<Queue>& queue, Event* event, bool& posted)
    PELMO_REQUIRES(queue->header.lock) {
    if (queueIsFullLocked(queue.get()) && !Id_IsInvalid(&event->header)) {
        const pelmoStatus status = meetLimit(queue, event);
        if (status == kStatusQueueLimit) return kStatusSuccess;
        if (status != kStatusSuccess) return status;
    }
    if (event->kind != kEventListener) return postEntryLocked(queue.get(), event, posted);
    Id_Enter(&event->header);
    const pelmoStatus status = postEntryLocked(queue.get(), event, posted);
    Id_Leave(&event->header);
    return status;
}

// Reports new entries to all that may wait for them: the queue's threads, its groups', and another
// event loop by the hook. A queue that was destroyed while a limit was reported has none any more.
// Releases the queue.
void announce(Held<Queue>& queue, uint32_t entries)
    PELMO_RELEASE(queue->header.lock) PELMO_UNCHECKED_LOCKING {
    if (Id_IsInvalid(&queue->header)) return queue.release();
    // Threads of the library's own queues wait for their timers and sockets instead.
    const uint32_t woken =
        idIsEventManagerQueue(queue->header.id) ? 0 : std::min(entries, queue->waiters);
    QueueGroups groups(queue.get());
    HookRun run;
    const bool hasHook = hookBeginLocked(queue.get(), run);
    queue.leave();
    // A thread that wakes takes the lock at once.
    for (uint32_t i = 0; i < woken; ++i)
        Cond_Signal(&queue->cond);
    groups.forEach([entries](uint32_t group) { return QueueGroup_Signal(group, entries); });
    if (hasHook) hookRun(queue.get(), run, entries);
    queue.release();
}

// Is there room for one of a batch? A policy that discards makes some.
bool hasRoom(Held<Queue>& queue) PELMO_REQUIRES(queue->header.lock) {
    if (Id_IsInvalid(&queue->header)) return false;
    if (!queueIsFullLocked(queue.get())) return true;
    const bool refused = queue->limitPolicy == kLimitDiscardNew;
    Queue_Discard(queue.get());
    queueReportLimit(queue);
    return !refused && !Id_IsInvalid(&queue->header);
}

// False when the message is gone. An event that was cut off has no transport any more.
bool postOfBatch(Held<Queue>& queue, EventRun& run, const PostEntry& entry)
    PELMO_REQUIRES(queue->header.lock) {
    const Event* const event = run.find(entry.eventId);
    const bool stays = msgIsNoReply(entry.message);
    if (event == nullptr || (!stays && (!hasRoom(queue) || event->listener.transportId == kNoId))) {
        msgRelease(entry.message);
        return false;
    }
    address(entry.message, event);
    traceMessage(kTraceReceive, entry.message, "Message %p added to listener queue",
                 tracePointer(entry.message));
    return pushLocked(queue.get(), entry.message) == kStatusSuccess;
}

// Events of one queue.
void postRun(uint32_t queueId, std::span<Event* const> events) {
    Held<Queue> queue;
    if (queue.findLocked(queueId) != kStatusSuccess) return;
    uint32_t added = 0;
    for (Event* const event : events) {
        if (Id_IsInvalid(&queue->header)) break;
        bool posted = false;
        (void)postLocked(queue, event, posted);
        added += posted ? 1 : 0;
    }
    if (added != 0) announce(queue, added);
}

}  // namespace

pelmoStatus Event_Post(Event* event) {
    if (event == nullptr) return kStatusInvalidEvent;
    Held<Queue> queue;
    if (queue.findLocked(event->queueId) != kStatusSuccess) return kStatusInvalidQueue;

    bool posted = false;
    const pelmoStatus status = postLocked(queue, event, posted);
    if (posted) announce(queue, 1);
    return status;
}

void Event_PostEach(std::span<Event* const> events) {
    while (!events.empty()) {
        const uint32_t queueId = events[0]->queueId;
        size_t run = 1;
        while (run < events.size() && events[run]->queueId == queueId) {
            ++run;
        }
        postRun(queueId, events.first(run));
        events = events.subspan(run);
    }
}

void Queue_PostBatch(uint32_t queueId, std::span<const PostEntry> entries) {
    EventRun run;  // ends after the queue's lock is released
    Held<Queue> queue;
    if (queue.findLocked(queueId) != kStatusSuccess) {
        for (const PostEntry& entry : entries)
            msgRelease(entry.message);
        return;
    }
    uint32_t added = 0;
    for (const PostEntry& entry : entries)
        added += postOfBatch(queue, run, entry) ? 1 : 0;
    if (added != 0) announce(queue, added);
}
