#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>

#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/io_events.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/transport_ops.h"

namespace {

void eventDestruct(IdHeader* object) {
    auto* const event = reinterpret_cast<Event*>(object);
    ListenerPart& listener = event->listener;
    if (listener.inbox != nullptr) {
        while (void* const message = EntryRing_PopFront(listener.inbox)) {
            msgRelease(static_cast<pelmoMsg*>(message));
        }
        EntryRing_Destroy(listener.inbox);
    }
    std::free(listener.subject);
    if (event->queue != nullptr) Id_Release(&event->queue->header, false);
    std::free(event);
}

// A record with one reference, the caller's, and no id. Takes the queue's over.
pelmoStatus newEvent(Held<Event>& out, EventKind kind, Held<Queue>& queue) {
    void* const block = std::calloc(1, sizeof(Event));
    if (block == nullptr) return kStatusNoMemory;
    auto* const event = new (block) Event{};
    const pelmoStatus status = Id_Init(&event->header, IdType::kEvent, eventDestruct);
    if (status != kStatusSuccess) {
        std::free(block);
        return status;
    }
    event->kind = kind;
    event->queueId = Id_Number(&queue->header);
    event->queue = queue.take();
    out.adopt(event);
    return kStatusSuccess;
}

// Gives the event its id and binds it to its source. The caller's reference becomes the base
// reference; another is held here, since the id may be destroyed as soon as it is there. After a
// failure nothing is left of the event.
pelmoStatus publish(Held<Event>& event, pelmoStatus (*bind)(Event*), uint32_t* out) {
    Held<Event> creator;
    creator.share(event.pointer());
    uint32_t id;
    pelmoStatus status = Id_SetGlobal(&creator->header, &id);
    if (status != kStatusSuccess) return status;

    IdHeader* const base = &event.take()->header;
    status = bind(creator.pointer());
    if (status == kStatusSuccess) {
        *out = id;
    } else if (Id_Invalidate(base) == kStatusSuccess) {
        Id_Release(base, false);
    }
    return status;
}

// A negative interval, or none at all.
bool isNoInterval(double seconds) {
    return !(seconds >= 0);
}

// The event of that id, held, if it is of that kind.
constexpr uint32_t kAnyKind = 0;

pelmoStatus getOfKind(Held<Event>& event, uint32_t id, uint32_t kind) {
    if (event.get(id, IdAccess::kUnlocked) != kStatusSuccess) return kStatusInvalidEvent;
    return kind == kAnyKind || event->kind == kind ? kStatusSuccess : kStatusInvalidEvent;
}

// What read(event) tells of an event of that kind.
template <typename Value, typename Read>
pelmoStatus readEvent(uint32_t id, uint32_t kind, Value* out, Read read) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Held<Event> found;
    const pelmoStatus status = getOfKind(found, id, kind);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    *out = read(*found.pointer());
    return kStatusSuccess;
}

// Takes a destroyed event from its source.
void detach(Event* event) {
    switch (event->kind) {
        case kEventTimer:
            (void)Timer_Remove(event);
            return;
        case kEventIo:
            (void)Event_UnregisterIO(event);
            return;
        case kEventListener: {
            const uint32_t transport = event->listener.transportId.load();
            if (transport == kNoId || transportOps.removeListener == nullptr) return;
            (void)transportOps.removeListener(transport, event);
        }
    }
}

pelmoStatus addListener(uint32_t* out, const ListenerRequest& request) {
    if (transportOps.addListener == nullptr) return kStatusInvalidTransport;
    return transportOps.addListener(out, request);
}

// What creating a listener checks ahead of the transport.
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
    if (target.get(queue, IdAccess::kUnlocked) != kStatusSuccess) return kStatusInvalidQueue;

    Held<Event> event;
    pelmoStatus status = newEvent(event, kEventTimer, target);
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
    if (target.get(queue, IdAccess::kUnlocked) != kStatusSuccess) return kStatusInvalidQueue;

    Held<Event> event;
    pelmoStatus status = newEvent(event, kEventIo, target);
    if (status != kStatusSuccess) return status;
    event->callback = callback;
    event->closure = closure;
    event->io.source = source;
    event->io.condition = IoCondition{condition};
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

// A dispatch counts itself in, and tests the invalid mark, under the queue's data lock; the mark is
// set under it here. So either the dispatch came first, and is seen in the count, or it finds the
// mark. A completion may free what the event watches, and so isn't left to a dispatch before the
// event has left its source; from the mark on the count only falls.
pelmoStatus pelmoEvent_DestroyEx(uint32_t event, pelmoEventCompletion completion) {
    traceLine(kTraceEvents, "pelmoEvent_DestroyEx(%u, %p)", event, traceCallback(completion));
    Held<Event> found;
    if (found.get(event, IdAccess::kUnlocked) != kStatusSuccess) return kStatusInvalidEvent;
    Lock& dataLock = found->queue->dataLock;
    {
        LockGuard guard(dataLock);
        Held<Event> taken;
        if (taken.get(event, IdAccess::kDestroy) != kStatusSuccess) return kStatusInvalidEvent;
    }
    void* const closure = found->closure;
    detach(found.pointer());
    if (completion == nullptr) return kStatusSuccess;
    {
        LockGuard guard(dataLock);
        if (found->dispatchCount != 0) {
            found->completion = completion;
            return kStatusSuccess;
        }
    }
    completion(event, closure);
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_GetType(uint32_t event, uint32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetType(%u, %p)", event, tracePointer(out));
    return readEvent(event, kAnyKind, out, [](const Event& of) { return of.kind; });
}

pelmoStatus pelmoEvent_GetQueue(uint32_t event, uint32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetQueue(%u, %p)", event, tracePointer(out));
    return readEvent(event, kAnyKind, out, [](const Event& of) { return of.queueId; });
}

pelmoStatus pelmoEvent_GetListenerSubject(uint32_t event, const char** out) {
    traceLine(kTraceEvents, "pelmoEvent_GetListenerSubject(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventListener, out,
                     [](const Event& of) { return of.listener.subject; });
}

pelmoStatus pelmoEvent_GetListenerTransport(uint32_t event, uint32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetListenerTransport(%u, %p)", event, tracePointer(out));
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Held<Event> found;
    const pelmoStatus status = getOfKind(found, event, kEventListener);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    const uint32_t transport = found->listener.transportId.load();
    if (transport == kNoId || Id_Check(transport, IdType::kTransport) != kStatusSuccess) {
        found.enter();
        found->listener.transportId.store(kNoId);
        return kStatusInvalidTransport;
    }
    *out = transport;
    return kStatusSuccess;
}

pelmoStatus pelmoEvent_GetTimerInterval(uint32_t event, double* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetTimerInterval(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventTimer, out, [](const Event& of) {
        return of.timer.interval.load(std::memory_order_relaxed);
    });
}

pelmoStatus pelmoEvent_ResetTimerInterval(uint32_t event, double intervalSeconds) {
    traceLine(kTraceEvents, "pelmoEvent_ResetTimerInterval(%u, %f)", event, intervalSeconds);
    if (!libraryIsOpen()) return kStatusNotInitialized;
    if (isNoInterval(intervalSeconds)) return kStatusInvalidInterval;
    Held<Event> found;
    const pelmoStatus status = getOfKind(found, event, kEventTimer);
    return status == kStatusSuccess ? Timer_Reset(found.pointer(), intervalSeconds) : status;
}

pelmoStatus pelmoEvent_GetIOSource(uint32_t event, int32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetIOSource(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventIo, out, [](const Event& of) { return of.io.source; });
}

pelmoStatus pelmoEvent_GetIOType(uint32_t event, uint32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetIOType(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventIo, out, [](const Event& of) { return of.io.condition; });
}

Event* Event_NewListener(const ListenerRequest& request, bool isInbox, uint32_t inboxCapacity) {
    Held<Queue> queue;
    if (queue.get(request.queueId, IdAccess::kUnlocked) != kStatusSuccess) return nullptr;
    Held<Event> event;
    if (newEvent(event, kEventListener, queue) != kStatusSuccess) return nullptr;
    event->callback = request.callback;
    event->closure = request.closure;

    ListenerPart& listener = event->listener;
    const bool isVector = request.kind == ListenerKind::kVector;
    listener.isInbox = isInbox;
    listener.kind = request.kind;
    listener.vectorCallback = request.vectorCallback;
    listener.vectorGroup =
        isVector ? request.vectorGroup : reinterpret_cast<void*>(request.callback);
    listener.transportId.store(request.transportId);
    listener.subject = strdup(request.subject);
    listener.inbox = EntryRing_Create(inboxCapacity);
    if (listener.subject == nullptr || listener.inbox == nullptr) return nullptr;
    return event.take();
}
