#include <cstdlib>
#include <cstring>
#include <new>

#include "lib/containers/entry_ring.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/trace_ops.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/library.h"
#include "lib/runtime/queue_internal.h"

namespace {

void eventDestruct(IdHeader* object) {
    auto* const event = reinterpret_cast<Event*>(object);
    ListenerPart& listener = event->listener;
    msgReleaseRing(listener.inbox);
    std::free(listener.subject);
    if (event->queue != nullptr) Id_Release(&event->queue->header, false);
    std::free(event);
}

// What read(event) returns for an event of that kind.
template <typename Value, typename Read>
pelmoStatus readEvent(uint32_t id, uint32_t kind, Value* out, Read read) {
    if (!libraryIsOpen()) return kStatusNotInitialized;
    Held<Event> found;
    const pelmoStatus status = Event_Find(found, id, kind);
    if (status != kStatusSuccess) return status;
    if (out == nullptr) return kStatusInvalidArgument;
    *out = read(*found.get());
    return kStatusSuccess;
}

}  // namespace

pelmoStatus Event_New(Held<Event>& out, pelmoEventKind kind, Held<Queue>& queue) {
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

pelmoStatus Event_Find(Held<Event>& event, uint32_t id, uint32_t kind) {
    if (event.find(id) != kStatusSuccess) return kStatusInvalidEvent;
    return kind == kAnyKind || event->kind == kind ? kStatusSuccess : kStatusInvalidEvent;
}

uint32_t Event_RunningDispatches(uint32_t event) {
    Held<Event> found;
    if (found.find(event) != kStatusSuccess) return 0;
    const LockGuard guard(found->queue->dataLock);
    return found->dispatchCount;
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
    const pelmoStatus status = Event_Find(found, event, kEventListener);
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

pelmoStatus pelmoEvent_GetIOSource(uint32_t event, int32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetIOSource(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventIo, out, [](const Event& of) { return of.io.source; });
}

pelmoStatus pelmoEvent_GetIOType(uint32_t event, uint32_t* out) {
    traceLine(kTraceEvents, "pelmoEvent_GetIOType(%u, %p)", event, tracePointer(out));
    return readEvent(event, kEventIo, out, [](const Event& of) { return of.io.condition; });
}

pelmoStatus Event_NewListener(Event** out,
                              const ListenerRequest& request,
                              bool isInbox,
                              uint32_t inboxCapacity) {
    Held<Queue> queue;
    if (queue.find(request.queueId) != kStatusSuccess) {
        return kStatusInvalidQueue;
    }
    Held<Event> event;
    const pelmoStatus status = Event_New(event, kEventListener, queue);
    if (status != kStatusSuccess) return status;
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
    if (listener.subject == nullptr || listener.inbox == nullptr) return kStatusNoMemory;
    *out = event.take();
    return kStatusSuccess;
}
