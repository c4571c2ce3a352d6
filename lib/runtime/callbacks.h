// The types of the functions that the runtime calls for applications. They run on a thread that
// dispatches, with no lock of the library held.

#pragma once

#include <cstdint>

struct pelmoMsg;

// The message belongs to the library and is released after the call unless the callback detaches
// it.
using pelmoEventCallback = void (*)(uint32_t event, pelmoMsg* msg, void* closure);

// At most kMostBatchMessages; each message carries its closure.
using pelmoVectorCallback = void (*)(pelmoMsg** messages, uint32_t count);
inline constexpr uint32_t kMostBatchMessages = 128;

// The completion runs once, when no callback of the event can run any more.
using pelmoEventCompletion = void (*)(uint32_t event, void* closure);
using pelmoQueueCompletion = void (*)(uint32_t queue, void* closure);

// Notifies another event loop that something was posted. The hook runs on the posting thread;
// queue.h says more.
using pelmoQueueHook = void (*)(uint32_t queue, void* closure);
