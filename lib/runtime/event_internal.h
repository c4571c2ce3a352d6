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
#include "lib/runtime/id.h"
#include "lib/runtime/transport_ops.h"

struct EntryRing;
struct Queue;

struct TimerPart {
    // Seconds. Stored under the object lock, read under the event manager's.
    std::atomic<double> interval;

    // Guarded by the event manager's lock: seconds since 1970 by the steady clock; changed only
    // while the timer isn't armed.
    double nextExpiry;
    uint32_t place;  // among the armed timers, from 1; 0: not armed
};

struct IoPart {
    // Constant after creation.
    IoCondition condition;
    int32_t source;  // a socket

    // Guarded by the event manager's lock.
    bool sourceValid;
    bool sourceChecked;
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

    // Guarded by the object lock: messages delivered that wait for a place on the queue; null once
    // the listener is cut off.
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

    // Guarded by the queue's data lock.
    uint32_t dispatchCount;  // dispatches of this event under way
    pelmoEventCompletion completion;

    // By kind; all zero for the others.
    TimerPart timer;
    IoPart io;
    ListenerPart listener;
};

// For transports.

// A listener's record, initialised and without an id: one reference, which the caller holds. Its
// inbox has room as told, a power of two. Null where memory ran out, or the queue is gone.
[[nodiscard]] Event* Event_NewListener(const ListenerRequest& request,
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
            (void)event.get(id, IdAccess::kUnlocked);
        }
        return event && !Id_IsInvalid(&event->header) ? event.pointer() : nullptr;
    }
};
