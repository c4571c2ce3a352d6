// The event's record: what binds a source of happenings to a queue and a callback. The calls stand
// in lib/runtime/event.h; posting, dispatch, event manager and transports work on the record.
//
// Order of locks: the queue's object lock, its data lock, then the event's object lock. The event
// manager's lock is never taken with an event's held.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/runtime/callbacks.h"
#include "lib/runtime/event.h"
#include "lib/runtime/evm_state.h"
#include "lib/runtime/id.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/transport_ops.h"

struct EntryRing;

struct TimerPart {
    // Seconds. Stored under the object lock, read under the event manager's.
    std::atomic<double> interval;

    // Seconds since 1970 by the steady clock; changed only while the timer isn't armed.
    double nextExpiry PELMO_GUARDED_BY(evmLock);

    uint32_t place PELMO_GUARDED_BY(evmLock);  // among the armed timers, from 1; 0: not armed
};

struct IoPart {
    // Constant after creation.
    IoCondition condition;
    int32_t source;  // a socket

    bool sourceValid PELMO_GUARDED_BY(evmLock);
    bool sourceChecked PELMO_GUARDED_BY(evmLock);
    bool hungUp PELMO_GUARDED_BY(
        evmLock);  // the last pass met a hang-up or an error, and nothing that fires this event
};

struct ListenerPart {
    // Constant after creation.
    char* subject;  // heap text, as given
    bool isInbox;   // the first element is "_INBOX"
    ListenerKind kind;
    pelmoVectorCallback vectorCallback;  // null but for kVector
    void* vectorGroup;  // groups listeners for one batch; for kinds other than kVector the callback

    // 0 once the listener is cut off. Written under the object lock; atomic, because dispatch reads
    // it without.
    std::atomic<uint32_t> transportId;

    // The transport had inbound hooks at the last delivery. Written as above.
    std::atomic<bool> inboundHooks;

    // Messages delivered that wait for a place on the queue; null once the listener is cut off.
    EntryRing* inbox;
};

struct Event {
    static constexpr IdType kIdType = IdType::kEvent;
    IdHeader header;

    // Constant after creation.
    EventKind kind;
    uint32_t queueId;
    Queue* queue;  // counted: its data lock is there for as long as the event, whatever its id
    pelmoEventCallback callback;  // null for a vector or polled listener
    void* closure;

    uint32_t dispatchCount PELMO_GUARDED_BY(queue->dataLock);  // of this event, under way
    pelmoEventCompletion completion PELMO_GUARDED_BY(queue->dataLock);

    // By kind; all zero for the others.
    TimerPart timer;
    IoPart io;
    ListenerPart listener;
};

// For transports.

// A record with one reference, the caller's, and no id. Takes the queue's over. kStatusNoMemory.
[[nodiscard]] pelmoStatus Event_New(Held<Event>& out, EventKind kind, Held<Queue>& queue);

// The event of that id, held, if it is of that kind; kStatusInvalidEvent for none.
inline constexpr uint32_t kAnyKind = 0;
[[nodiscard]] pelmoStatus Event_Find(Held<Event>& event, uint32_t id, uint32_t kind);

// A listener's record, initialised and without an id: one reference, which the caller holds. Its
// inbox has room as told, a power of two. kStatusInvalidQueue, kStatusNoMemory.
[[nodiscard]] pelmoStatus Event_NewListener(Event** out,
                                            const ListenerRequest& request,
                                            bool isInbox,
                                            uint32_t inboxCapacity);

// Look-ups of events for entries in a row: one for each run of the same id.
struct EventRun {
    Held<Event> event;  // holds nothing where there is none of that id
    uint32_t id = kNoId;

    // Null for an event that is gone; else good until the next call.
    [[nodiscard]] Event* find(uint32_t wanted) {
        if (id != wanted) {
            event.release();
            id = wanted;
            (void)event.find(id);
        }
        return event && !Id_IsInvalid(&event->header) ? event.get() : nullptr;
    }
};
