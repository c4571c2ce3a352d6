// Creating an event binds it to its timer, socket or transport; destroying it removes it from
// there.

#include <bit>
#include <utility>

#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/io_events.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/transport_ops.h"

namespace {

// Gives the event its id and binds it to its source. The caller's reference becomes the base
// reference; another one is held here, since another thread may destroy the id as soon as it
// exists. On failure the event is released.
pelmoStatus publish(Held<Event>& event, pelmoStatus (*bind)(Event*), uint32_t* out) {
    Held<Event> creator;
    creator.share(event.get());
    uint32_t id;
    pelmoStatus status = Id_SetGlobal(&creator->header, &id);
    if (status != kStatusSuccess) return status;

    IdHeader* const base = &event.take()->header;
    status = bind(creator.get());
    if (status == kStatusSuccess) {
        *out = id;
        return kStatusSuccess;
    }
    if (Id_Invalidate(base) == kStatusSuccess) Id_Release(base, false);
    // The id wasn't returned yet, so only a close can have destroyed the event, along with all
    // others.
    return status == kStatusInvalidEvent ? kStatusNotInitialized : status;
}

// True for a negative interval and for NaN.
bool isNoInterval(double seconds) {
    return !(seconds >= 0);
}

// Removes a destroyed event from its source.
void detach(Event* event) {
    switch (event->kind) {
        case kEventTimer:
            (void)Timer_Remove(event);
            return;
        case kEventIo:
            (void)Event_UnregisterIO(event);
            return;
        case kEventListener: {
            if (event->listener.isRequest) {
                pelmoEvent_DestroyEx(event->listener.requestTimer.load(), nullptr);
            }
            const uint32_t transport = event->listener.transportId.load();
            if (transport == kNoId || transportOps.removeListener == nullptr) return;
            (void)transportOps.removeListener(transport, event);
        }
    }
}

// The events that end. Each is kept alive by its destroy or by the dispatch that runs its callback.
struct {
    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    Event* first PELMO_GUARDED_BY(lock) = nullptr;
} ending;

void addEnding(Event* event) {
    const LockGuard guard(ending.lock);
    event->nextEnding = std::exchange(ending.first, event);
}

void removeEnding(Event* event) {
    const LockGuard guard(ending.lock);
    Event** at = &ending.first;
    while (*at != event)
        at = &(*at)->nextEnding;
    *at = event->nextEnding;
}

// False where no event of that id ends now.
bool findEnding(Held<Event>& out, uint32_t id) {
    const LockGuard guard(ending.lock);
    for (Event* event = ending.first; event != nullptr; event = event->nextEnding) {
        if (event->header.id != id) continue;
        out.share(event);
        return true;
    }
    return false;
}

// A dispatch counts itself and tests the invalid mark under the queue's data lock, under which this
// sets the mark. So either the dispatch came first and is in the count, or it sees the mark. A
// completion may free what the event watches, so it isn't left to a dispatch before the event was
// removed from its source; once the mark is set, the count only falls. The event is among those
// that end before its id is gone, so that any other destroy finds it one way or the other.
pelmoStatus destroy(Event* event) {
    {
        const LockGuard guard(event->queue->dataLock);
        if (Id_IsInvalid(&event->header)) return kStatusInvalidEvent;
        addEnding(event);
        Held<Event> taken;
        if (taken.destroy(event->header.id) != kStatusSuccess) {
            removeEnding(event);
            return kStatusInvalidEvent;
        }
        event->detaching = true;
        event->ends = true;
    }
    detach(event);
    const LockGuard guard(event->queue->dataLock);
    event->detaching = false;
    Event_EndLocked(event);
    return kStatusSuccess;
}

void waitForEnd(Event* event) {
    const LockGuard guard(event->queue->dataLock);
    ++event->queue->eventWaiters;
    while (event->ends)
        (void)Cond_Wait(&event->queue->eventEnded, &event->queue->dataLock);
    --event->queue->eventWaiters;
}

pelmoStatus addListener(uint32_t* out, const ListenerRequest& request) {
    if (transportOps.addListener == nullptr) return kStatusInvalidTransport;
    return transportOps.addListener(out, request);
}

// The checks of a new listener that don't concern its transport.
pelmoStatus checkListener(const uint32_t* out, bool hasCallback) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (out == nullptr) return kStatusInvalidEvent;
    return hasCallback ? kStatusSuccess : kStatusInvalidCallback;
}

pelmoStatus createVectorListener(uint32_t* out, const ListenerRequest& request) {
    const pelmoStatus status = checkListener(out, request.vectorCallback != nullptr);
    return status == kStatusSuccess ? addListener(out, request) : status;
}

template <typename Callback>
const void* traceCallback(Callback callback) {
    return reinterpret_cast<const void*>(callback);
}

}  // namespace

pelmoStatus pelmoEvent_CreateTimer(uint32_t* out,
                                   uint32_t queue,
                                   pelmoEventCallback callback,
                                   double intervalSeconds,
                                   void* closure) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (callback == nullptr) return kStatusInvalidCallback;
    if (out == nullptr) return kStatusInvalidEvent;
    if (isNoInterval(intervalSeconds)) return kStatusInvalidInterval;
    Held<Queue> target;
    if (target.find(queue) != kStatusSuccess) return kStatusInvalidQueue;

    Held<Event> event;
    pelmoStatus status = Event_New(event, kEventTimer, target);
    if (status != kStatusSuccess) return status;
    event->callback = callback;
    event->closure = closure;
    event->timer.interval.store(intervalSeconds, std::memory_order_relaxed);
    status = publish(event, Timer_Arm, out);
    if (status != kStatusSuccess) return status;

    traceLine(kTraceEvents, "pelmoEvent_CreateTimer(%u, %u, %p, %p, %p)", *out, queue,
              traceCallback(callback),
              reinterpret_cast<const void*>(std::bit_cast<uintptr_t>(intervalSeconds)),
              tracePointer(closure));
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_CreateIO(uint32_t* out,
                                uint32_t queue,
                                pelmoEventCallback callback,
                                int32_t source,
                                uint32_t condition,
                                void* closure) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (callback == nullptr) return kStatusInvalidCallback;
    if (out == nullptr) return kStatusInvalidEvent;
    Held<Queue> target;
    if (target.find(queue) != kStatusSuccess) return kStatusInvalidQueue;

    Held<Event> event;
    pelmoStatus status = Event_New(event, kEventIo, target);
    if (status != kStatusSuccess) return status;
    event->callback = callback;
    event->closure = closure;
    event->io.source = source;
    event->io.condition = pelmoIoCondition{condition};
    status = publish(event, Event_RegisterIO, out);
    if (status != kStatusSuccess) return status;

    traceLine(kTraceEvents, "pelmoEvent_CreateIO(%u, %u, %p, %d, %u, %p)", *out, queue,
              traceCallback(callback), source, condition, tracePointer(closure));
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_CreateListener(uint32_t* out,
                                      uint32_t queue,
                                      pelmoEventCallback callback,
                                      uint32_t transport,
                                      const char* subject,
                                      void* closure) {
    pelmoStatus status = checkListener(out, callback != nullptr);
    if (status != kStatusSuccess) return status;
    status = addListener(out, {.queueId = queue,
                               .transportId = transport,
                               .subject = subject,
                               .kind = ListenerKind::kPlain,
                               .callback = callback,
                               .closure = closure});
    if (status != kStatusSuccess) return status;
    traceLine(kTraceEvents, "pelmoEvent_CreateListener(%u, %u, %p, %u, \"%s\", %p)", *out, queue,
              traceCallback(callback), transport, traceText(subject), tracePointer(closure));
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_CreateVectorListener(uint32_t* out,
                                            uint32_t queue,
                                            pelmoVectorCallback callback,
                                            uint32_t transport,
                                            const char* subject,
                                            void* closure) {
    const pelmoStatus status =
        createVectorListener(out, {.queueId = queue,
                                   .transportId = transport,
                                   .subject = subject,
                                   .kind = ListenerKind::kVector,
                                   .vectorCallback = callback,
                                   .vectorGroup = reinterpret_cast<void*>(callback),
                                   .closure = closure});
    if (status != kStatusSuccess) return status;
    traceLine(kTraceEvents, "pelmoEvent_CreateVectorListener(%u, %u, %p, %u, \"%s\", %p)", *out,
              queue, traceCallback(callback), transport, traceText(subject), tracePointer(closure));
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_CreateVectorListenerEx(uint32_t* out,
                                              uint32_t queue,
                                              pelmoVectorCallback callback,
                                              uint32_t transport,
                                              const char* subject,
                                              void* closure,
                                              void* vectorGroup) {
    const pelmoStatus status = createVectorListener(out, {.queueId = queue,
                                                          .transportId = transport,
                                                          .subject = subject,
                                                          .kind = ListenerKind::kVector,
                                                          .vectorCallback = callback,
                                                          .vectorGroup = vectorGroup,
                                                          .closure = closure});
    if (status != kStatusSuccess) return status;
    traceLine(kTraceEvents, "pelmoEvent_CreateVectorListenerEx(%u, %u, %p, %u, \"%s\", %p, %p)",
              *out, queue, traceCallback(callback), transport, traceText(subject),
              tracePointer(closure), tracePointer(vectorGroup));
    return kStatusSuccess;
}

pelmoStatus _pelmoTransport_AddPolledListener(uint32_t* out,
                                              uint32_t queue,
                                              uint32_t transport,
                                              const char* subject) {
    pelmoStatus status = checkListener(out, true);
    if (status != kStatusSuccess) return status;
    status = addListener(out, {.queueId = queue,
                               .transportId = transport,
                               .subject = subject,
                               .kind = ListenerKind::kPolled});
    if (status != kStatusSuccess) return status;
    traceLine(kTraceEvents, "_pelmoTransport_AddPolledListener(%u, %u,  %u, \"%s\")", *out, queue,
              transport, traceText(subject));
    return kStatusSuccess;
}

void Event_EndLocked(Event* event) {
    if (event->dispatchCount != 0 || event->detaching || !event->ends) return;
    event->ends = false;
    removeEnding(event);
    if (event->queue->eventWaiters != 0) Cond_Broadcast(&event->queue->eventEnded);
}

pelmoStatus pelmoEvent_DestroyEx(uint32_t event, pelmoEventCompletion completion) {
    traceLine(kTraceEvents, "pelmoEvent_DestroyEx(%u, %p)", event, traceCallback(completion));
    Held<Event> found;
    if (found.find(event) != kStatusSuccess) return kStatusInvalidEvent;
    const pelmoStatus status = destroy(found.get());
    if (status != kStatusSuccess) return status;
    void* const closure = found->closure;
    if (completion == nullptr) return kStatusSuccess;
    {
        const LockGuard guard(found->queue->dataLock);
        if (found->dispatchCount != 0) {
            found->completion = completion;
            return kStatusSuccess;
        }
    }
    completion(event, closure);
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_DestroyWait(uint32_t event) {
    traceLine(kTraceEvents, "pelmoEvent_DestroyWait(%u)", event);
    Held<Event> found;
    if (found.find(event) != kStatusSuccess && !findEnding(found, event))
        return kStatusInvalidEvent;
    if (Event_RunsHere(found.get())) return kStatusNotPermitted;
    const pelmoStatus status = destroy(found.get());
    waitForEnd(found.get());
    return status;
}

pelmoStatus pelmoEvent_ResetTimerInterval(uint32_t event, double intervalSeconds) {
    traceLine(kTraceEvents, "pelmoEvent_ResetTimerInterval(%u, %f)", event, intervalSeconds);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (isNoInterval(intervalSeconds)) return kStatusInvalidInterval;
    Held<Event> found;
    const pelmoStatus status = Event_Find(found, event, kEventTimer);
    return status == kStatusSuccess ? Timer_Reset(found.get(), intervalSeconds) : status;
}
