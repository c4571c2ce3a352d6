// IO events: sockets that an IO thread watches, and the events that they fire.
//
// Failure: kStatusInvalidIoSource for what isn't a socket, or a socket and condition that the set
// has already; kStatusNotInitialized while the event manager, or the thread in question, doesn't
// run; kStatusInvalidIoCondition; kStatusSocketLimit where the set can't grow; kStatusNoMemory;
// kStatusInvalidEvent for an event that isn't registered, or that is destroyed.
//
// Threads: any, with no event's lock held.

#pragma once

#include "lib/base/annotate.h"
#include "lib/base/status.h"
#include "lib/base/thread.h"
#include "lib/runtime/evm_state.h"
#include "lib/runtime/poll_set.h"

struct Event;
struct WakeupPair;

// With the set of the event's queue if that is an IO queue, else with that of the first IO thread,
// which takes it up at once.
[[nodiscard]] pelmoStatus Event_RegisterIO(Event* event);

// On return no wait has the socket in it: its owner may close it. From an IO thread's own callback
// there is none to wait for. While the event manager stops, its threads leave their waits by
// themselves.
pelmoStatus Event_UnregisterIO(Event* event);

// For the event manager.

// What stands behind one IO thread.
struct IoThread {
    uint32_t queueId;  // of its IO queue, constant
    uint32_t epoch;    // constant
    Thread* thread;    // for the stop to join

    // What ends the thread's wait for its sockets; constant while the thread runs. The pair is an
    // IO event's user itself, and so is known here by this call alone; it runs under evmLock.
    WakeupPair* pair;  // null: nothing ends the wait
    void (*wake)(WakeupPair* pair);

    PollSet sockets PELMO_GUARDED_BY(evmLock);

    // Set under evmLock ahead of a poll, cleared without when it is over, and waited for by those
    // who took a socket out.
    std::atomic<bool> inPoll;
};

// Makes the record and its set, and enters it in the table, which the first one makes.
[[nodiscard]] pelmoStatus ioThreadAddLocked(uint32_t queueId, IoThread** out)
    PELMO_REQUIRES(evmLock);

// From place 0 on; null behind the last.
[[nodiscard]] IoThread* ioThreadAtLocked(uint32_t place) PELMO_REQUIRES(evmLock);

// Lets go of all records and the table. Their threads have ended, or never look at them again.
void ioThreadDropLastLocked() PELMO_REQUIRES(evmLock);  // there is one
void ioThreadsClearLocked() PELMO_REQUIRES(evmLock);

// One pass: waits for the sockets, at most 10 seconds, and posts the events that are ready. A
// thread that can't be woken waits only briefly. On the thread that owns the record, which is there
// at the start. False once its epoch has passed: it may then be gone.
[[nodiscard]] bool ioThreadPass(IoThread* own, bool canBeWoken);
