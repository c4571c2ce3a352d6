// Polls: how applications take messages from synchronous queues.

#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/dispatch_wait.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"

namespace {

pelmoStatus findToPoll(Held<Queue>& queue, uint32_t id, bool hasOutput)
    PELMO_ASSERTS(queue->header.lock) {
    const pelmoStatus status = queueFind(queue, id);
    if (status != kStatusSuccess) return status;
    if (!hasOutput) return kStatusInvalidArgument;
    return queue->synchronous ? kStatusSuccess : kStatusNotPermitted;
}

pelmoStatus awaitEntriesLocked(Queue* queue, double seconds) PELMO_REQUIRES(queue->header.lock) {
    DispatchWait wait{seconds};
    const uint32_t wakesBefore = queue->wakes.count;
    while (queue->pending->count == 0) {
        if (seconds != 0 && queue->wakes.end(wakesBefore)) return kStatusInterrupted;
        ++queue->waiters;
        const pelmoStatus status = dispatchWaitStep(wait, &queue->header, &queue->cond);
        --queue->waiters;
        if (!libraryIsOpen()) return kStatusNotInitialized;
        if (Id_IsInvalid(&queue->header)) return kStatusInvalidQueue;
        if (queue->pending->count == 0 && status != kStatusSuccess) return status;
    }
    return kStatusSuccess;
}

// Takes the oldest message of an event that still exists, which the caller then owns; null when
// there is none.
pelmoMsg* takeLocked(Queue* queue, EventRun& run) PELMO_REQUIRES(queue->header.lock) {
    while (void* entry = EntryRing_PopFront(queue->pending)) {
        auto* const message = static_cast<pelmoMsg*>(entry);
        if (run.find(message->deliveryEvent) != nullptr) {
            msgSetOwned(message);
            return message;
        }
        msgRelease(message);
    }
    return nullptr;
}

// Several posts may have been merged into one signal, so a thread that leaves entries wakes the
// next one.
void wakeNextLocked(Queue* queue) PELMO_REQUIRES(queue->header.lock) {
    if (queue->pending->count != 0 && queue->waiters != 0) Cond_Signal(&queue->cond);
}

}  // namespace

pelmoStatus pelmoQueue_Poll(uint32_t queue, pelmoMsg** out, double seconds) {
    traceLine(kTraceQueue, "pelmoQueue_Poll(%u, %p, %f)", queue, tracePointer(out), seconds);
    EventRun run;
    Held<Queue> held;
    pelmoStatus status = findToPoll(held, queue, out != nullptr);
    if (status == kStatusSuccess) status = awaitEntriesLocked(held.get(), seconds);
    if (status != kStatusSuccess) return status;
    *out = takeLocked(held.get(), run);
    wakeNextLocked(held.get());
    return kStatusSuccess;
}

pelmoStatus pelmoQueue_PollMany(
    uint32_t queue, pelmoMsg** messages, uint32_t size, uint32_t* outCount, double seconds) {
    traceLine(kTraceQueue, "pelmoQueue_PollMany(%u, %p, %u, %p, %f)", queue, tracePointer(messages),
              size, tracePointer(outCount), seconds);
    EventRun run;
    Held<Queue> held;
    pelmoStatus status = findToPoll(held, queue, messages != nullptr && outCount != nullptr);
    if (status == kStatusSuccess) status = awaitEntriesLocked(held.get(), seconds);
    if (status != kStatusSuccess) return status;

    uint32_t count = 0;
    while (count < size && (messages[count] = takeLocked(held.get(), run)) != nullptr)
        ++count;
    *outCount = count;
    wakeNextLocked(held.get());
    return kStatusSuccess;
}
