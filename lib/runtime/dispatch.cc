#include <algorithm>
#include <span>
#include <utility>

#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/dispatch_wait.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/io_events.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/transport_ops.h"

namespace {

// What one step runs. It owns the ring's reference to each message and a reference to each event;
// an event is listed once for each run of its entries.
struct Batch {
    uint32_t messageCount = 0;
    uint32_t eventCount = 0;
    pelmoMsg* messages[kMostBatchMessages];
    Event* events[kMostBatchMessages];
};

// The batches whose callbacks run on this thread, the innermost first: a callback may dispatch.
struct RunningBatch {
    const Batch* batch;
    const RunningBatch* outer;
};
constinit thread_local const RunningBatch* runningBatch = nullptr;

// Fills `ready` from `pending` if it is empty; both locks are held. Several posts may have been
// merged into one signal, which wakes one thread, so a dispatch that leaves entries wakes the
// next thread.
bool takePendingLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock, queue->dataLock) {
    if (queue->ready->count == 0) std::swap(queue->pending, queue->ready);
    const bool leavesSome = queue->ready->count + queue->pending->count > 1;
    if (leavesSome && queue->waiters != 0) Cond_Signal(&queue->cond);
    return queue->ready->count != 0;
}

// Called with the object lock held. On success the data lock is held too, whether there are entries
// or not.
pelmoStatus awaitEntriesLocked(Queue* queue, double seconds) PELMO_UNCHECKED_LOCKING {
    DispatchWait wait{seconds};
    pelmoStatus status = kStatusSuccess;
    const uint32_t wakesBefore = queue->wakes.count;
    for (;;) {
        if (Id_IsInvalid(&queue->header)) return kStatusInvalidQueue;
        Lock_Enter(&queue->dataLock);
        if (takePendingLocked(queue) || dispatchToldToStop(queue->header.id)) return kStatusSuccess;
        Lock_Leave(&queue->dataLock);
        if (seconds == 0 || status != kStatusSuccess) break;
        if (queue->wakes.end(wakesBefore)) return kStatusInterrupted;

        ++queue->waiters;
        status = dispatchWaitStep(wait, &queue->header, &queue->cond);
        --queue->waiters;
        if (!libraryIsOpen()) return kStatusNotInitialized;
    }
    return seconds == 0 ? kStatusTimeout : status;
}

// On success the data lock is held and the queue is valid. Entries of `ready` can be taken without
// the lock that posters need.
pelmoStatus enterWithEntries(Queue* queue, double seconds) PELMO_UNCHECKED_LOCKING {
    Lock_Enter(&queue->dataLock);
    if (Id_IsInvalid(&queue->header)) {
        Lock_Leave(&queue->dataLock);
        return kStatusInvalidQueue;
    }
    if (queue->ready->count != 0) return kStatusSuccess;
    Lock_Leave(&queue->dataLock);

    Id_Enter(&queue->header);
    const pelmoStatus status = awaitEntriesLocked(queue, seconds);
    Id_Leave(&queue->header);
    return status;
}

pelmoMsg* frontEntry(const EntryRing* ring) {
    return static_cast<pelmoMsg*>(ring->slots[EntryRing_Slot(ring, 0)]);
}

// False, with nothing held, when the entry's event is gone. Destroying an event takes the data
// lock, so an event that is valid here stays valid while that lock is held.
bool eventOfEntry(const pelmoMsg* entry, Held<Event>& event) {
    if (event.find(entry->deliveryEvent) != kStatusSuccess) return false;
    if (!Id_IsInvalid(&event->header)) return true;
    event.release();
    return false;
}

void takeMessageLocked(Batch& batch, Queue* queue) PELMO_REQUIRES(queue->dataLock) {
    auto* message = static_cast<pelmoMsg*>(EntryRing_PopFront(queue->ready));
    msgClearOwned(message);
    batch.messages[batch.messageCount++] = message;
}

void dropEntryLocked(Queue* queue) PELMO_REQUIRES(queue->dataLock) {
    msgRelease(static_cast<pelmoMsg*>(EntryRing_PopFront(queue->ready)));
}

void openBatchLocked(Batch& batch, Queue* queue) PELMO_REQUIRES(queue->dataLock) {
    while (batch.messageCount == 0 && queue->ready->count != 0) {
        Held<Event> event;
        if (!eventOfEntry(frontEntry(queue->ready), event)) {
            dropEntryLocked(queue);
            continue;
        }
        takeMessageLocked(batch, queue);
        batch.events[batch.eventCount++] = event.take();
    }
}

bool shareBatches(const Event* event, const Event* other) {
    return event->listener.vectorCallback == other->listener.vectorCallback &&
           event->listener.vectorGroup == other->listener.vectorGroup &&
           event->listener.transportId == other->listener.transportId;
}

// Adds the entries that directly follow the first one and may share its batch.
void fillBatchLocked(Batch& batch, Queue* queue, DispatchBatch kind)
    PELMO_REQUIRES(queue->dataLock) {
    const Event* const first = batch.events[0];
    while (batch.messageCount < kMostBatchMessages && queue->ready->count != 0) {
        const pelmoMsg* const entry = frontEntry(queue->ready);
        if (entry->deliveryEvent == first->header.id) {
            takeMessageLocked(batch, queue);
            continue;
        }
        if (kind == DispatchBatch::kOneEvent) return;
        Held<Event> event;
        if (!eventOfEntry(entry, event)) {
            dropEntryLocked(queue);
            continue;
        }
        if (!shareBatches(first, event.get())) return;
        takeMessageLocked(batch, queue);
        batch.events[batch.eventCount++] = event.take();
    }
}

// From here until finishBatch, a destroy of the queue or of an event leaves its completion to this
// dispatch. All events of a batch belong to its queue, whose data lock guards their counts; the
// lock checker can't know that, neither here nor in countDownLocked.
void countDispatchLocked(const Batch& batch, Queue* queue) PELMO_UNCHECKED_LOCKING {
    ++queue->running;
    for (uint32_t i = 0; i < batch.eventCount; ++i)
        ++batch.events[i]->dispatchCount;
}

void takeBatchLocked(Batch& batch, Queue* queue, DispatchBatch kind)
    PELMO_REQUIRES(queue->dataLock) {
    openBatchLocked(batch, queue);
    if (batch.messageCount == 0) return;
    if (batch.events[0]->listener.vectorCallback != nullptr) fillBatchLocked(batch, queue, kind);
    countDispatchLocked(batch, queue);
}

bool passesHooks(const Event* event, pelmoMsg* message) {
    if (!event->listener.inboundHooks) return true;
    return transportOps.runInboundHooks != nullptr &&
           transportOps.runInboundHooks(event->listener.transportId, message);
}

void callPlain(const Batch& batch) {
    const Event* const event = batch.events[0];
    pelmoMsg* const message = batch.messages[0];
    if (event->callback == nullptr || !passesHooks(event, message)) return;
    event->callback(event->header.id, message, event->closure);
}

// Reply and time limit both come as entries; the first of them is the answer, and ends the request.
void callAnswered(const Batch& batch) {
    Event* const event = batch.events[0];
    pelmoMsg* const message = batch.messages[0];
    const bool isReply = !msgIsNoReply(message);
    if (isReply && !passesHooks(event, message)) return;
    if (event->listener.answered.exchange(true)) return;
    pelmoEvent_DestroyEx(event->listener.requestTimer.load(), nullptr);
    event->callback(event->header.id, isReply ? message : nullptr, event->closure);
    pelmoEvent_DestroyEx(event->header.id, nullptr);
}

// The callback gets a copy of the array, which it may change.
void callVector(const Batch& batch) {
    const Event* const event = batch.events[0];
    pelmoMsg* passed[kMostBatchMessages];
    uint32_t count = 0;
    for (uint32_t i = 0; i < batch.messageCount; ++i) {
        if (passesHooks(event, batch.messages[i])) passed[count++] = batch.messages[i];
    }
    if (count != 0) event->listener.vectorCallback(passed, count);
}

void callBackOf(const Batch& batch) {
    Event* const event = batch.events[0];
    const bool noReply = msgIsNoReply(batch.messages[0]);
    if (event->kind == kEventListener && event->listener.transportId == kNoId && !noReply) return;
    if (event->kind == kEventTimer) (void)Timer_Insert(event);  // fails for a destroyed timer
    if (event->listener.vectorCallback != nullptr) {
        callVector(batch);
    } else if (event->listener.isRequest) {
        callAnswered(batch);
    } else {
        callPlain(batch);
    }
}

void callBack(const Batch& batch) {
    const RunningBatch own = {&batch, runningBatch};
    runningBatch = &own;
    callBackOf(batch);
    runningBatch = own.outer;
}

pelmoEventCompletion countDownLocked(Event* event) PELMO_UNCHECKED_LOCKING {
    --event->dispatchCount;
    if (event->dispatchCount != 0 || !Id_IsInvalid(&event->header)) return nullptr;
    Event_EndLocked(event);
    return std::exchange(event->completion, nullptr);
}

// Removes the dispatch from the counts and then, with no lock held, runs the completions that
// waited for it.
void finishBatch(const Batch& batch, Queue* queue) {
    pelmoEventCompletion completions[kMostBatchMessages];
    QueueEnd end{};
    {
        const LockGuard guard(queue->dataLock);
        end = queueFinishLocked(queue);
        for (uint32_t i = 0; i < batch.eventCount; ++i) {
            completions[i] = countDownLocked(batch.events[i]);
        }
    }
    for (uint32_t i = 0; i < batch.eventCount; ++i) {
        Event* const event = batch.events[i];
        if (event->kind == kEventIo && !idIsIoQueue(event->queueId)) (void)Event_RegisterIO(event);
        if (completions[i] != nullptr) completions[i](event->header.id, event->closure);
    }
    end.call(queue->header.id);
}

// A message that the callback detached stays alive: detaching took a reference of its own.
void releaseBatch(const Batch& batch) {
    for (uint32_t i = 0; i < batch.messageCount; ++i)
        msgRelease(batch.messages[i]);
    for (uint32_t i = 0; i < batch.eventCount; ++i)
        Id_Release(&batch.events[i]->header, false);
}

pelmoStatus dispatchById(uint32_t id, double seconds, DispatchBatch kind) {
    Held<Queue> queue;
    if (queue.find(id) != kStatusSuccess) return kStatusInvalidQueue;
    return Queue_Dispatch(queue.get(), seconds, kind);
}

}  // namespace

bool Event_RunsHere(const Event* event) {
    for (const RunningBatch* at = runningBatch; at != nullptr; at = at->outer) {
        const std::span<Event* const> events(at->batch->events, at->batch->eventCount);
        if (std::ranges::find(events, event) != events.end()) return true;
    }
    return false;
}

pelmoStatus Queue_Dispatch(Queue* queue,
                           double seconds,
                           DispatchBatch kind) PELMO_UNCHECKED_LOCKING {
    if (queue->synchronous) return kStatusNotPermitted;
    const pelmoStatus status = enterWithEntries(queue, seconds);
    if (status != kStatusSuccess) return status;

    Batch batch;
    takeBatchLocked(batch, queue, kind);
    Lock_Leave(&queue->dataLock);
    if (batch.messageCount == 0) return kStatusSuccess;

    callBack(batch);
    finishBatch(batch, queue);
    releaseBatch(batch);
    return kStatusSuccess;
}

pelmoStatus Queue_DispatchId(uint32_t queue, double seconds) {
    traceLine(kTraceDispatch, "pelmoQueue_TimedDispatch(%u, %f)", queue, seconds);
    return dispatchById(queue, seconds, DispatchBatch::kMixedEvents);
}

pelmoStatus pelmoQueue_TimedDispatch(uint32_t queue, double seconds) {
    traceLine(kTraceDispatch, "pelmoQueue_TimedDispatch(%u, %f)", queue, seconds);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    return dispatchById(queue, seconds, DispatchBatch::kMixedEvents);
}

// The trace line is that of the plain call.
pelmoStatus pelmoQueue_TimedDispatchSingle(uint32_t queue, double seconds) {
    traceLine(kTraceDispatch, "pelmoQueue_TimedDispatch(%u, %f)", queue, seconds);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    return dispatchById(queue, seconds, DispatchBatch::kOneEvent);
}
