// A slot that holds another pointer in each thread, null at first.
//
// Create allocates the record, Init fills one in the caller's storage; Destroy serves both. It
// leaves the values alone.
//
// Failure: kStatusInvalidArgument for a null argument, kStatusNoMemory where the system has no slot
// or no room for a value; outputs are written only on success.

#pragma once

#include <pthread.h>

#include "lib/base/status.h"

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
