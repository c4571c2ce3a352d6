// Queues: where firing events wait for a thread to dispatch them (dispatch.h).
//
//     uint32_t queue;
//     if (pelmoQueue_Create(&queue) != kStatusSuccess) return;
//     pelmoQueue_SetLimitPolicy(queue, kLimitDiscardFirst, 1000, 10);
//     ...
//     pelmoQueue_DestroyEx(queue, nullptr, nullptr);
//
// A queue at its limit drops listeners' messages as its policy tells, and an advisory tells of it
// on "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED" of the intra-process transport; timer and IO entries
// are never dropped. A synchronous queue hands its messages out by polls instead of callbacks.
//
// Failure: kStatusNotInitialized while the library is closed, kStatusInvalidQueue for a bad id,
// kStatusInvalidArgument for no output, kStatusNoMemory, kStatusNotPermitted for what the default
// queue or a synchronous one refuses. Outputs are written only on success.
//
// Threads: any.

#pragma once

#include <cstdint>

#include "../base/status.h"
#include "callbacks.h"
#include "fixed_ids.h"

enum LimitPolicy : uint32_t {
    kLimitNone,
    kLimitDiscardNew,
    kLimitDiscardFirst,
    kLimitDiscardLast,
};

[[nodiscard]] pelmoStatus pelmoQueue_Create(uint32_t* out);
[[nodiscard]] pelmoStatus pelmoQueue_CreateSynchronous(uint32_t* out);

// Waiters wake, nothing more is posted, the queue leaves its groups. The completion may be null; it
// runs on this thread if no dispatch is under way, else on the thread of the last one, after its
// callback. kStatusNotPermitted for the default queue while the library is open. Entries not
// dispatched are dropped.
pelmoStatus pelmoQueue_DestroyEx(uint32_t queue, pelmoQueueCompletion completion, void* closure);

[[nodiscard]] pelmoStatus pelmoQueue_GetCount(uint32_t queue, uint32_t* out);
[[nodiscard]] pelmoStatus pelmoQueue_GetHook(uint32_t queue, pelmoQueueHook* out);

// Called after each post, for each entry once; null for none. A hook of a listener's post runs with
// the transport's lock held: it may call the library, since the lock is recursive, but it doesn't
// wait for another thread, nor take a lock that is held elsewhere around calls of the library. It
// doesn't dispatch either, as callbacks would run with that lock held, nor open or close the
// library. kStatusNotPermitted for a synchronous queue.
pelmoStatus pelmoQueue_SetHook(uint32_t queue, pelmoQueueHook hook, void* closure);

[[nodiscard]] pelmoStatus pelmoQueue_GetLimitPolicy(uint32_t queue,
                                                    uint32_t* outPolicy,
                                                    uint32_t* outMaxEvents,
                                                    uint32_t* outDiscardAmount);

// kStatusArgumentsConflict, ahead of all else: kLimitNone wants 0 and 0, the others a limit, a
// discard of at most the limit, and kLimitDiscardNew a discard of exactly 1. A count above the new
// limit is cut by one discard at once.
pelmoStatus pelmoQueue_SetLimitPolicy(uint32_t queue,
                                      uint32_t policy,
                                      uint32_t maxEvents,
                                      uint32_t discardAmount);

// The text is good until the name changes or the queue goes. Setting copies.
[[nodiscard]] pelmoStatus pelmoQueue_GetName(uint32_t queue, const char** out);
pelmoStatus pelmoQueue_SetName(uint32_t queue, const char* name);

// 1 at first. The queue changes places in its groups.
[[nodiscard]] pelmoStatus pelmoQueue_GetPriority(uint32_t queue, uint32_t* out);
pelmoStatus pelmoQueue_SetPriority(uint32_t queue, uint32_t priority);

// Waits for a message of a synchronous queue; the caller destroys it. Seconds below 0: without
// limit; 0: kStatusTimeout where there is none. The output is null where all that waited was for
// events that are gone. kStatusNotPermitted for other queues.
[[nodiscard]] pelmoStatus pelmoQueue_Poll(uint32_t queue, pelmoMsg** out, double seconds);
[[nodiscard]] pelmoStatus pelmoQueue_PollMany(
    uint32_t queue, pelmoMsg** messages, uint32_t size, uint32_t* outCount, double seconds);
