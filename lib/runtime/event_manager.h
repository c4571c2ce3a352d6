// The event manager: turns time and ready sockets into queue entries.
//
// One timer thread keeps all armed timers (lib/runtime/timers.h), sleeps until the soonest is due,
// posts what is due, and dispatches the timer queue. Each IO thread owns one IO queue and one set
// of sockets (lib/runtime/io_events.h), and alternates between dispatching its queue and waiting
// for its sockets.
//
// An entry that another thread posts to an IO queue is dispatched when the wait ends, at the latest
// 10 seconds later, since such a post doesn't wake the thread.
//
// Failure: kStatusNoMemory, kStatusInvalidArgument for a count of threads other than 1 to 128; the
// stop removes what a failed start left.
//
// Threads: started and stopped under the library lock. The stop joins the threads, except the one
// that it is called on.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

// Makes the timer queue and starts the timer thread.
[[nodiscard]] pelmoStatus EventManager_Start();

// Makes IO queues 1 to count, their socket sets and threads; stops at the first failure.
[[nodiscard]] pelmoStatus EventManager_StartIo(uint32_t count);

// Is the calling thread one of its own, timer or IO thread? What such a thread would wait for may
// need that very thread.
[[nodiscard]] bool EventManager_IsOwnThread();

// No timer or IO event fires afterwards; the event manager's queues are destroyed and all timers
// disarmed.
void EventManager_Stop();
