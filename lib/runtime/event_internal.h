// The event's record, which binds an event's source to a queue and a callback. lib/runtime/event.h
// has the calls; posting, dispatch, event manager and transports work on the record.
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
    // In seconds. Written under the object lock, read under the event manager's.
    std::atomic<double> interval;

    // Seconds since 1970 by the steady clock; changed only while the timer isn't armed.
    double nextExpiry PELMO_GUARDED_BY(evmLock);

    uint32_t place PELMO_GUARDED_BY(evmLock);  // in the timer heap, from 1; 0: not armed
};

struct IoPart {
    // Constant after creation.
    pelmoIoCondition condition;
    int32_t source;

    bool sourceValid PELMO_GUARDED_BY(evmLock);
    bool sourceChecked PELMO_GUARDED_BY(evmLock);
    bool isSocket PELMO_GUARDED_BY(evmLock);  // once checked
    bool hungUp PELMO_GUARDED_BY(
        evmLock);  // the last pass saw a hang-up or an error and nothing that fires this event
};

struct ListenerPart {
    // Constant after creation.
    char* subject;  // heap text, as given
    bool isInbox;   // the first element is "_INBOX"
    ListenerKind kind;
    pelmoVectorCallback vectorCallback;  // null but for kVector
    void* vectorGroup;  // groups listeners for one batch; for kinds other than kVector the callback

    // 0 once the listener was removed from its transport. Written under the object lock; atomic,
    // because dispatch reads it without the lock.
    std::atomic<uint32_t> transportId;

    // Did the transport have inbound hooks at the last delivery? Written as above.
    std::atomic<bool> inboundHooks;

    // Delivered messages that wait for a place on the queue; null once the listener was removed.
    EntryRing* inbox;

    // Of a listener for the one reply to a request (pelmoTransport_SendRequestAsync).
    bool isRequest;                      // constant after creation
    std::atomic<uint32_t> requestTimer;  // its time limit; kNoId until there is one
    std::atomic<bool> answered;          // its callback has run or runs
};

struct Event {
    static constexpr IdType kIdType = IdType::kEvent;
    IdHeader header;

    // Constant after creation.
    pelmoEventKind kind;
    uint32_t queueId;
    Queue* queue;  // a counted reference, so that its data lock outlives the event, even if the
                   // queue is destroyed
    pelmoEventCallback callback;  // null for a vector or polled listener
    void* closure;

    uint32_t dispatchCount PELMO_GUARDED_BY(queue->dataLock);  // running dispatches of this event
    pelmoEventCompletion completion PELMO_GUARDED_BY(queue->dataLock);

    // From the destroy until its source is gone and its last callback has returned, the event is in
    // the list of those that end, where a second destroy finds it without an id.
    bool detaching PELMO_GUARDED_BY(queue->dataLock);  // its source isn't gone yet
    bool ends PELMO_GUARDED_BY(queue->dataLock);
    Event* nextEnding;  // guarded by the list's own lock

    // One of these is used, by kind; the others are zeroed.
    TimerPart timer;
    IoPart io;
    ListenerPart listener;
};

// Does a callback of the event run on this thread, further up its stack?
[[nodiscard]] bool Event_RunsHere(const Event* event);

// After a destroyed event's source is gone, and after each of its callbacks, with the data lock of
// its queue held: wakes those that wait for its end, if this was it.
void Event_EndLocked(Event* event) PELMO_REQUIRES(event->queue->dataLock);

// How many dispatches of the event run: they were taken from its queue, and their callbacks haven't
// returned. 0 for an event that is gone.
[[nodiscard]] uint32_t Event_RunningDispatches(uint32_t event);

// For transports.

// Makes a record with one reference, the caller's, and no id. It takes over the reference to the
// queue. kStatusNoMemory.
[[nodiscard]] pelmoStatus Event_New(Held<Event>& out, pelmoEventKind kind, Held<Queue>& queue);

// Finds the event of that id and kind and holds it; kStatusInvalidEvent when there is none.
inline constexpr uint32_t kAnyKind = 0;
[[nodiscard]] pelmoStatus Event_Find(Held<Event>& event, uint32_t id, uint32_t kind);

// Makes a listener's record without an id; the caller holds its one reference. The capacity of its
// inbox is a power of two. kStatusInvalidQueue, kStatusNoMemory.
[[nodiscard]] pelmoStatus Event_NewListener(Event** out,
                                            const ListenerRequest& request,
                                            bool isInbox,
                                            uint32_t inboxCapacity);

// Looks events up for consecutive entries, once for each run of the same id.
struct EventRun {
    Held<Event> event;  // empty when the id has no event
    uint32_t id = kNoId;

    // Null for an event that is gone; otherwise valid until the next call.
    [[nodiscard]] Event* find(uint32_t wanted) {
        if (id != wanted) {
            event.release();
            id = wanted;
            (void)event.find(id);
        }
        return event && !Id_IsInvalid(&event->header) ? event.get() : nullptr;
    }
};
