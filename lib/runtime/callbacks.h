// What applications hand to the runtime to be called: on a thread that dispatches, with no lock of
// the library held.

#pragma once

#include <cstdint>

struct pelmoMsg;

// The message is the library's and ends with the call, unless the callback detaches it.
using pelmoEventCallback = void (*)(uint32_t event, pelmoMsg* msg, void* closure);

// At most kMostBatchMessages; the closure of each stands in the message.
using pelmoVectorCallback = void (*)(pelmoMsg** messages, uint32_t count);
inline constexpr uint32_t kMostBatchMessages = 128;

// Runs once, when no callback of the event can run any more.
using pelmoEventCompletion = void (*)(uint32_t event, void* closure);
using pelmoQueueCompletion = void (*)(uint32_t queue, void* closure);

// Tells a foreign event loop that something was posted. Runs on the posting thread, which may be in
// the midst of a delivery: what a hook may not do stands in queue.h.
using pelmoQueueHook = void (*)(uint32_t queue, void* closure);
