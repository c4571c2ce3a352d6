// Events: a source of happenings, bound to a queue and a callback. There are timers, IO sources and
// listeners on subjects; a firing ends as one entry on the queue, and the callback runs when a
// thread dispatches it.
//
//     uint32_t timer;
//     if (pelmoEvent_CreateTimer(&timer, kDefaultQueueId, onTick, 1.0, nullptr) != kStatusSuccess)
//         return;
//     ...
//     pelmoEvent_DestroyEx(timer, nullptr);
//
// Timers and IO events on ordinary queues fire once and are brought back by their dispatch: a queue
// that nobody dispatches doesn't fill up with them, and a late dispatch loses firings.
//
// Ownership: an event belongs to its creator until it is destroyed. Closures and sockets stay the
// caller's.
//
// Failure: kStatusNotInitialized while the library is closed. Creating then answers, in this order,
// kStatusInvalidCallback for none, kStatusInvalidEvent for no output (for listeners the other way
// round), kStatusInvalidInterval for a negative one or none at all (NaN), kStatusInvalidQueue,
// kStatusInvalidIoSource, kStatusInvalidIoCondition, kStatusSocketLimit, kStatusNoMemory; listeners
// add kStatusInvalidSubject and kStatusInvalidTransport. The others answer kStatusInvalidEvent for
// a bad id or another kind, then kStatusInvalidArgument for no output. Outputs are written only on
// success.
//
// Threads: any.

#pragma once

#include <cstdint>

#include "../base/status.h"
#include "callbacks.h"

// What pelmoEvent_GetType answers.
enum EventKind : uint32_t { kEventTimer = 1, kEventIo = 2, kEventListener = 3 };

enum IoCondition : uint32_t { kIoRead = 1, kIoWrite = 2, kIoException = 4 };

// First due one interval from now. Interval 0 fires at every pass of the timer thread.
[[nodiscard]] pelmoStatus pelmoEvent_CreateTimer(uint32_t* out,
                                                 uint32_t queue,
                                                 pelmoEventCallback callback,
                                                 double intervalSeconds,
                                                 void* closure);

// One condition, of enum IoCondition, for each event.
[[nodiscard]] pelmoStatus pelmoEvent_CreateIO(uint32_t* out,
                                              uint32_t queue,
                                              pelmoEventCallback callback,
                                              int32_t source,
                                              uint32_t condition,
                                              void* closure);

[[nodiscard]] pelmoStatus pelmoEvent_CreateListener(uint32_t* out,
                                                    uint32_t queue,
                                                    pelmoEventCallback callback,
                                                    uint32_t transport,
                                                    const char* subject,
                                                    void* closure);

// Many messages in one call. Listeners of one group, by default those of one callback, share
// batches.
[[nodiscard]] pelmoStatus pelmoEvent_CreateVectorListener(uint32_t* out,
                                                          uint32_t queue,
                                                          pelmoVectorCallback callback,
                                                          uint32_t transport,
                                                          const char* subject,
                                                          void* closure);
[[nodiscard]] pelmoStatus pelmoEvent_CreateVectorListenerEx(uint32_t* out,
                                                            uint32_t queue,
                                                            pelmoVectorCallback callback,
                                                            uint32_t transport,
                                                            const char* subject,
                                                            void* closure,
                                                            void* vectorGroup);

// For a synchronous queue, read by pelmoQueue_Poll.
[[nodiscard]] pelmoStatus _pelmoTransport_AddPolledListener(uint32_t* out,
                                                            uint32_t queue,
                                                            uint32_t transport,
                                                            const char* subject);

// No callback starts afterwards; one that runs goes on. The completion may be null; it runs on this
// thread if no callback is under way, else on the thread of the last one, after it. In each case no
// wait has an IO event's socket any more: the completion may close it.
pelmoStatus pelmoEvent_DestroyEx(uint32_t event, pelmoEventCompletion completion);

// Of any kind.
[[nodiscard]] pelmoStatus pelmoEvent_GetType(uint32_t event, uint32_t* out);
[[nodiscard]] pelmoStatus pelmoEvent_GetQueue(uint32_t event, uint32_t* out);

// Of one kind; kStatusInvalidEvent for the others.

// The text is good while the event lives.
[[nodiscard]] pelmoStatus pelmoEvent_GetListenerSubject(uint32_t event, const char** out);

// kStatusInvalidTransport where it is gone.
[[nodiscard]] pelmoStatus pelmoEvent_GetListenerTransport(uint32_t event, uint32_t* out);
[[nodiscard]] pelmoStatus pelmoEvent_GetTimerInterval(uint32_t event, double* out);

// Counts from the call, not from the last firing.
pelmoStatus pelmoEvent_ResetTimerInterval(uint32_t event, double intervalSeconds);
[[nodiscard]] pelmoStatus pelmoEvent_GetIOSource(uint32_t event, int32_t* out);
[[nodiscard]] pelmoStatus pelmoEvent_GetIOType(uint32_t event, uint32_t* out);
