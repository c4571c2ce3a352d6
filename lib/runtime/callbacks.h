// The types of the functions that the runtime calls for applications. They run on a thread that
// dispatches, with no lock of the library held.

#pragma once

#include <stdint.h>

#include "../base/language.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// The message belongs to the library and is released after the call unless the callback detaches
// it.
typedef void (*pelmoEventCallback)(uint32_t event, pelmoMsg* msg, void* closure);

// At most kMostBatchMessages. pelmoMsg_GetEvent and pelmoMsg_GetClosure say of each message which
// listener it is for.
typedef void (*pelmoVectorCallback)(pelmoMsg** messages, uint32_t count);
enum PELMO_UNDERLYING(uint32_t) { kMostBatchMessages = 128 };

// The completion runs once, when no callback of the event can run any more.
typedef void (*pelmoEventCompletion)(uint32_t event, void* closure);
typedef void (*pelmoQueueCompletion)(uint32_t queue, void* closure);

// Notifies another event loop that something was posted. The hook runs on the posting thread;
// queue.h says more.
typedef void (*pelmoQueueHook)(uint32_t queue, void* closure);

#ifdef __cplusplus
}
#endif
