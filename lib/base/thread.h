// Threads.
//
// Create allocates the record, Init fills one in the caller's storage. Destroy gives up the handle
// and frees what Create allocated; the thread itself, if it wasn't joined, goes on.
//
// Failure: kStatusInvalidArgument for a null argument, kStatusNoMemory, kStatusNotInitialized where
// the system refuses the thread; *out is written only on success, and before the thread runs.
//
// Threads: one thread owns a record: joins it, destroys it.

#pragma once

#include <pthread.h>

#include <cstdint>

#include "lib/base/status.h"

using ThreadFunction = void (*)(void* argument);

struct Thread {
    // Constant after creation.
    uint32_t flags;
    pthread_t handle;

    // Owned by the owner's thread.
    bool joined;
};

[[nodiscard]] pelmoStatus Thread_Create(Thread** out, ThreadFunction function, void* argument);
[[nodiscard]] pelmoStatus Thread_Init(Thread* thread, ThreadFunction function, void* argument);
pelmoStatus Thread_Destroy(Thread* thread);

// Waits for the thread's end, for as long as it takes. A second join returns at once. A thread that
// would wait for itself gets kStatusOsError.
pelmoStatus Thread_Join(Thread* thread);

[[nodiscard]] bool Thread_IsCurrent(const Thread* thread);

// The calling thread's number, the one that the system's own tools show.
[[nodiscard]] uint64_t Thread_Number();

// Each thread started from now on runs the hook in place of its function: the hook does what has to
// come first, calls function(argument) itself, and does what has to come last. Null for no hook.
using ThreadStartHook = void (*)(ThreadFunction function, void* argument);
void Thread_SetStartHook(ThreadStartHook hook);
