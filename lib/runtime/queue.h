// Queues: where firing events wait for a thread to dispatch them (dispatch.h).
//
//     uint32_t queue;
//     if (pelmoQueue_Create(&queue) != kStatusSuccess) return;
//     pelmoQueue_SetLimitPolicy(queue, kLimitDiscardFirst, 1000, 10);
//     ...
//     pelmoQueue_DestroyEx(queue, nullptr, nullptr);
//
// A queue at its limit drops listeners' messages according to its policy and reports it by the
// advisory "_PM.WARN.SYSTEM.QUEUE.LIMIT_EXCEEDED" on the intra-process transport; timer and IO
// entries are never dropped. A synchronous queue is polled for its messages and runs no callbacks.
//
// Failure: kStatusNotInitialized while the library is closed, kStatusInvalidQueue for a bad id,
// kStatusInvalidArgument for a null output, kStatusNoMemory, kStatusNotPermitted for calls that the
// default queue or a synchronous queue doesn't allow. Outputs are written only on success.
//
// Threads: any.

#pragma once

#include <stdint.h>

#include "../base/status.h"
#include "callbacks.h"
#include "fixed_ids.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum pelmoLimitPolicy PELMO_UNDERLYING(uint32_t){
    kLimitNone,
    kLimitDiscardNew,
    kLimitDiscardFirst,
    kLimitDiscardLast,
} pelmoLimitPolicy;

PELMO_NODISCARD pelmoStatus pelmoQueue_Create(uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoQueue_CreateSynchronous(uint32_t* out);

// Waiting threads wake, nothing more can be posted, and the queue leaves its groups. The completion
// may be null; it runs on this thread if no dispatch and no hook is running, else on the thread of
// the last of these, after its callback. kStatusNotPermitted for the default queue while the
// library is open. Entries not dispatched are dropped.
pelmoStatus pelmoQueue_DestroyEx(uint32_t queue, pelmoQueueCompletion completion, void* closure);

PELMO_NODISCARD pelmoStatus pelmoQueue_GetCount(uint32_t queue, uint32_t* out);
PELMO_NODISCARD pelmoStatus pelmoQueue_GetHook(uint32_t queue, pelmoQueueHook* out);

// The hook is called after each post, once for each entry; null removes it. It runs on the posting
// thread with no lock of the library held, and may make any call that a callback may make. The
// thread may be the library's own, which does nothing else meanwhile, so it should be quick.
//
// On return no call of the former hook is running or will begin, so that its closure may be freed:
// this waits for those that run on other threads. The caller must hold no lock that a hook takes. A
// hook that sets its own queue's hook doesn't wait; its closure is its own from then on.
// kStatusNotPermitted for a synchronous queue.
pelmoStatus pelmoQueue_SetHook(uint32_t queue, pelmoQueueHook hook, void* closure);

PELMO_NODISCARD pelmoStatus pelmoQueue_GetLimitPolicy(uint32_t queue,
                                                      uint32_t* outPolicy,
                                                      uint32_t* outMaxEvents,
                                                      uint32_t* outDiscardAmount);

// kStatusArgumentsConflict, tested first: kLimitNone needs 0 and 0; the others need a limit above 0
// and a discard of at most the limit, kLimitDiscardNew a discard of exactly 1. If the queue is
// above the new limit, one discard is made at once.
pelmoStatus pelmoQueue_SetLimitPolicy(uint32_t queue,
                                      uint32_t policy,
                                      uint32_t maxEvents,
                                      uint32_t discardAmount);

// The text is valid until the name changes or the queue is destroyed. Setting copies the text.
PELMO_NODISCARD pelmoStatus pelmoQueue_GetName(uint32_t queue, const char** out);
pelmoStatus pelmoQueue_SetName(uint32_t queue, const char* name);

// The priority is 1 at first. Setting it moves the queue to its new place in its groups.
PELMO_NODISCARD pelmoStatus pelmoQueue_GetPriority(uint32_t queue, uint32_t* out);
pelmoStatus pelmoQueue_SetPriority(uint32_t queue, uint32_t priority);

// Ends the waits of all threads that dispatch or poll the queue now, by kStatusInterrupted; where
// none waits, the next wait ends at once. Several wakes before that count as one. A dispatch that
// finds an entry runs it and returns as ever, and dispatchers go on. For a program that ends by a
// flag:
//
//     static volatile sig_atomic_t over;
//     void onSignal(int signal) { over = 1; pelmoQueue_Wake(queue); }
//     ...
//     while (!over && pelmoQueue_TimedDispatch(queue, -1) != kStatusInvalidQueue) {}
//
// Where several threads run such a loop, one may be on its way to its wait while the wake meets the
// others; so each wakes the queue again when it leaves.
//
// An id that isn't a queue's is ignored. Never waits for a lock. Signal handlers may call it, and
// pelmoQueueGroup_Wake (queue_group.h), pelmoStatus_GetText and no other call of the library.
// kStatusNotInitialized while the library is closed or has no IO thread, and in the child of a
// fork.
pelmoStatus pelmoQueue_Wake(uint32_t queue);

// Waits for a message of a synchronous queue; the caller destroys it. Seconds below 0 wait without
// limit; 0 answers kStatusTimeout when there is no message. The output is null when all waiting
// messages were for destroyed events. kStatusNotPermitted for other queues.
PELMO_NODISCARD pelmoStatus pelmoQueue_Poll(uint32_t queue, pelmoMsg** out, double seconds);
PELMO_NODISCARD pelmoStatus pelmoQueue_PollMany(
    uint32_t queue, pelmoMsg** messages, uint32_t size, uint32_t* outCount, double seconds);

#ifdef __cplusplus
}
#endif
