// Threads, values that each thread has of its own, and a gate for what runs once per process.
//
// Create allocates a record, Init fills one in the caller's storage; Destroy serves both.
//
// Failure: kStatusInvalidArgument for a null argument, kStatusNoMemory, and for a thread
// kStatusNotInitialized where the system refuses it; outputs are written only on success.

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "lib/base/status.h"

using ThreadFunction = void (*)(void* argument);

// One thread owns the record: it joins and destroys it.
struct Thread {
    // Constant after creation.
    uint32_t flags;
    pthread_t handle;

    // Owned by the owner's thread.
    bool joined;
};

// *out is written before the thread runs.
[[nodiscard]] pelmoStatus Thread_Create(Thread** out, ThreadFunction function, void* argument);
[[nodiscard]] pelmoStatus Thread_Init(Thread* thread, ThreadFunction function, void* argument);

// A thread that was not joined goes on.
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

// A slot that holds another pointer in each thread, null at first. Destroy leaves the values alone.
// kStatusNoMemory where the system has no slot or no room for a value.
struct ThreadKey {
    // Constant after creation.
    uint32_t flags;
    pthread_key_t slot;
};

// Runs at the end of each thread whose value isn't null, on that thread, with the slot reset to
// null. May be null.
using ThreadKeyDestructor = void (*)(void* value);

[[nodiscard]] pelmoStatus ThreadKey_Create(ThreadKey** out, ThreadKeyDestructor destructor);
[[nodiscard]] pelmoStatus ThreadKey_Init(ThreadKey* key, ThreadKeyDestructor destructor);
pelmoStatus ThreadKey_Destroy(ThreadKey* key);

[[nodiscard]] pelmoStatus ThreadKey_Get(const ThreadKey* key, void** out);
[[nodiscard]] pelmoStatus ThreadKey_Set(const ThreadKey* key, void* value);

// A gate that runs a set-up once per process, for the first caller; the others wait for its end.
//
//     OnceGate gate;
//     const pelmoStatus status = oncePass(gate, [] { ... });
//
// Threads: any. All callers that passed see what the set-up wrote.
struct OnceGate {
    // 1: not started. (kOnceDone, 0]: running; each waiting caller subtracts one. <= kOnceDone:
    // finished.
    std::atomic<int32_t> word{1};
};

inline constexpr int32_t kOnceDone = -65536;

using OnceSetUp = void (*)();

// What a waiting caller does between two looks, except in tests: sleeps for 0.05 seconds.
void oncePauseShort();

// kStatusOsError for a caller that gave up after 100 looks; the set-up may still end, and later
// callers then pass. A set-up that passes its own gate gets it, too. The set-up's own status isn't
// passed on: the set-up stores it where its callers look.
[[nodiscard]] pelmoStatus oncePass(OnceGate& gate,
                                   OnceSetUp setUp,
                                   void (*pause)() = oncePauseShort);
