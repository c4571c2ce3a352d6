// IO events: sockets and other descriptors that an IO thread watches, and the events that they
// fire.
//
// Failure: kStatusInvalidIoSource for what poll can't wait for, or a source and condition that the
// set already has; kStatusNotInitialized while the event manager, or the thread in question,
// doesn't run; kStatusInvalidIoCondition; kStatusSocketLimit when the set can't grow;
// kStatusNoMemory; kStatusInvalidEvent for an event that isn't registered, or that is destroyed.
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

// Registers the event with the set of its queue if that is an IO queue, else with that of the first
// IO thread. The thread begins to poll the socket at once.
[[nodiscard]] pelmoStatus Event_RegisterIO(Event* event);

// On return no thread polls the socket, so its owner may close it. In an IO thread's own callback
// that thread isn't polling. While the event manager stops, its threads leave their polls by
// themselves.
pelmoStatus Event_UnregisterIO(Event* event);

// The rest is for the event manager.

// The record of one IO thread.
struct IoThread {
    uint32_t queueId;  // of its IO queue, constant
    uint32_t epoch;    // constant
    Thread* thread;    // joined by the stop

    // Ends the thread's wait for its sockets; constant while the thread runs. The wake-up pair
    // itself uses IO events, so this module knows it only by this function, which runs under
    // evmLock.
    WakeupPair* pair;  // null: nothing ends the wait
    void (*wake)(WakeupPair* pair);

    PollSet sockets PELMO_GUARDED_BY(evmLock);

    // Set under evmLock before a poll and cleared without it afterwards. A thread that removed a
    // socket waits until it is cleared.
    std::atomic<bool> inPoll;
};

// Makes the record and its set and enters it in the table, which is made with the first record.
[[nodiscard]] pelmoStatus ioThreadAddLocked(uint32_t queueId, IoThread** out)
    PELMO_REQUIRES(evmLock);

// Places count from 0; null after the last.
[[nodiscard]] IoThread* ioThreadAtLocked(uint32_t place) PELMO_REQUIRES(evmLock);

// Releases all records and the table. Their threads have ended or never use them again.
void ioThreadDropLastLocked() PELMO_REQUIRES(evmLock);  // the table isn't empty
void ioThreadsClearLocked() PELMO_REQUIRES(evmLock);

// One pass: waits for the sockets, at most 10 seconds, and posts the events that are ready. A
// thread that can't be woken waits only briefly. Called on the thread that owns the record, which
// exists when the call starts. False once the epoch has ended: the record may then be gone.
[[nodiscard]] bool ioThreadPass(IoThread* own, bool canBeWoken);
