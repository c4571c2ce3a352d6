// The event's record: what binds a source of happenings to a queue and a callback. The calls stand
// in lib/runtime/event.h; posting, dispatch, event manager and transports work on the record.
//
// Order of locks: the queue's object lock, its data lock, then the event's object lock. The event
// manager's lock is never taken with an event's held.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/runtime/callbacks.h"
#include "lib/runtime/id.h"

struct EntryRing;
struct Queue;

// What pelmoEvent_GetType answers.
enum EventKind : uint32_t { kEventTimer = 1, kEventIo = 2, kEventListener = 3 };

enum IoCondition : uint32_t { kIoRead = 1, kIoWrite = 2, kIoException = 4 };

enum class ListenerKind : uint32_t { kPlain, kVector, kPolled };

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
