// Events: timers, IO sources and listeners on subjects, each bound to a queue and a callback. Each
// firing posts one entry to the queue, and the callback runs when a thread dispatches that entry.
//
//     uint32_t timer;
//     if (pelmoEvent_CreateTimer(&timer, kDefaultQueueId, onTick, 1.0, nullptr) != kStatusSuccess)
//         return;
//     ...
//     pelmoEvent_DestroyEx(timer, nullptr);
//
// Timers and IO events on ordinary queues fire once and are armed again by their dispatch: a queue
// that no thread dispatches doesn't fill up with them, and a late dispatch loses firings.
//
// Ownership: an event belongs to its creator until it is destroyed. Closures and descriptors belong
// to the caller; an IO event is destroyed before its descriptor is closed, since the number may be
// another file's at once, and its source would be that. A closure may be freed when the completion
// runs, when pelmoEvent_DestroyWait has returned with any status but kStatusNotPermitted, and where
// a destroy answers kStatusInvalidEvent after the last close of the library: no callback of the
// event runs or will run then.
//
// The last close ends all events. A callback that an application's own thread runs meanwhile keeps
// its event: both destroys still work for it, though the library is closed. A completion runs once
// in any case where its destroy succeeded, after the close too; for events that the close itself
// ended none runs.
//
// Failure: kStatusNotInitialized while the library is closed, but from the destroys. Creating
// otherwise answers, in this order of tests, kStatusInvalidCallback for a null callback,
// kStatusInvalidEvent for a null output (listeners test these two the other way round),
// kStatusInvalidInterval for a negative interval or NaN, kStatusInvalidQueue,
// kStatusInvalidIoSource, kStatusInvalidIoCondition, kStatusSocketLimit, kStatusNoMemory; listeners
// add kStatusInvalidSubject and kStatusInvalidTransport. The others answer kStatusInvalidEvent for
// a bad id or another kind, then kStatusInvalidArgument for a null output. Outputs are written only
// on success.
//
// Threads: any.

#pragma once

#include <stdint.h>

#include "../base/status.h"
#include "callbacks.h"

#ifdef __cplusplus
extern "C" {
#endif

// What pelmoEvent_GetType answers.
typedef enum pelmoEventKind PELMO_UNDERLYING(uint32_t){kEventTimer = 1, kEventIo = 2,
                                                       kEventListener = 3} pelmoEventKind;

typedef enum pelmoIoCondition PELMO_UNDERLYING(uint32_t){kIoRead = 1, kIoWrite = 2,
                                                         kIoException = 4} pelmoIoCondition;

// The timer is first due one interval from now. With interval 0 it fires at every pass of the timer
// thread.
PELMO_NODISCARD pelmoStatus pelmoEvent_CreateTimer(uint32_t* out,
                                                   uint32_t queue,
                                                   pelmoEventCallback callback,
                                                   double intervalSeconds,
                                                   void* closure);

// Each event has one condition, of enum pelmoIoCondition. The source is a descriptor that poll can
// wait for: a socket, a pipe, an eventfd, a timerfd, a signalfd, a terminal. A hang-up or an error
// makes it ready to read and to write, so that a read callback finds the end of a pipe. What makes
// it ready is the callback's to take away, or it fires again. kStatusInvalidIoSource for a regular
// file or a folder, for a number that isn't open, and when the same thread of the library polls
// that source for that condition already.
PELMO_NODISCARD pelmoStatus pelmoEvent_CreateIO(uint32_t* out,
                                                uint32_t queue,
                                                pelmoEventCallback callback,
                                                int32_t source,
                                                uint32_t condition,
                                                void* closure);

// A listener's subject has elements of 1 to 127 characters and 255 bytes when packed (see
// msg/envelope.h). "*" is any one element, ">" as the last one any rest.
PELMO_NODISCARD pelmoStatus pelmoEvent_CreateListener(uint32_t* out,
                                                      uint32_t queue,
                                                      pelmoEventCallback callback,
                                                      uint32_t transport,
                                                      const char* subject,
                                                      void* closure);

// The callback gets many messages in one call. Listeners of one group, by default those of one
// callback, share batches.
PELMO_NODISCARD pelmoStatus pelmoEvent_CreateVectorListener(uint32_t* out,
                                                            uint32_t queue,
                                                            pelmoVectorCallback callback,
                                                            uint32_t transport,
                                                            const char* subject,
                                                            void* closure);
PELMO_NODISCARD pelmoStatus pelmoEvent_CreateVectorListenerEx(uint32_t* out,
                                                              uint32_t queue,
                                                              pelmoVectorCallback callback,
                                                              uint32_t transport,
                                                              const char* subject,
                                                              void* closure,
                                                              void* vectorGroup);

// For a synchronous queue, whose messages pelmoQueue_Poll returns.
PELMO_NODISCARD pelmoStatus _pelmoTransport_AddPolledListener(uint32_t* out,
                                                              uint32_t queue,
                                                              uint32_t transport,
                                                              const char* subject);

// No callback starts afterwards; one that is running continues. The completion may be null. It runs
// on this thread if no callback is running, else on the thread of the last callback, after it. In
// each case no thread polls an IO event's socket any more, so the completion may close it.
pelmoStatus pelmoEvent_DestroyEx(uint32_t event, pelmoEventCompletion completion);

// The same, and returns once no callback of the event runs on any thread: what they use may then be
// freed. kStatusNotPermitted within a callback of the event itself, which the wait would never see
// end: the event is then as it was, and pelmoEvent_DestroyEx destroys it. kStatusInvalidEvent for
// an event that was destroyed already, by another thread or by its own callback, and likewise only
// once none of its callbacks runs. A callback of another event may call it, unless two callbacks
// wait for each other so. The caller holds no lock that the callback takes.
pelmoStatus pelmoEvent_DestroyWait(uint32_t event);

// The next calls take an event of any kind.
PELMO_NODISCARD pelmoStatus pelmoEvent_GetType(uint32_t event, uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoEvent_GetQueue(uint32_t event, uint32_t* out);

// The next calls take an event of one kind and answer kStatusInvalidEvent for the others.

// The text is valid while the event exists.
PELMO_NODISCARD pelmoStatus pelmoEvent_GetListenerSubject(uint32_t event, const char** out);

// kStatusInvalidTransport when the listener's transport is gone.
PELMO_NODISCARD pelmoStatus pelmoEvent_GetListenerTransport(uint32_t event, uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoEvent_GetTimerInterval(uint32_t event, double* out);

// The new interval counts from the call, not from the last firing.
pelmoStatus pelmoEvent_ResetTimerInterval(uint32_t event, double intervalSeconds);
PELMO_NODISCARD pelmoStatus pelmoEvent_GetIOSource(uint32_t event, int32_t* out);
PELMO_NODISCARD pelmoStatus pelmoEvent_GetIOType(uint32_t event, uint32_t* out);

#ifdef __cplusplus
}
#endif
