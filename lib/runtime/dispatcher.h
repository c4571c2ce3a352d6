// Dispatchers: threads that do nothing but dispatch one queue or queue group.
//
// A dispatcher's thread runs until a dispatch answers anything but success or a wake's
// kStatusInterrupted, so with a finite time until the first time-out. It then reports its end by
// the advisory
// "_PM.INFO.SYSTEM.DISPATCHER.THREAD_EXITED.<name>" with the fields "status" and "description".
//
// Failure: kStatusInvalidDispatcher for a bad id (kStatusInvalidQueue from GetName),
// kStatusInvalidArgument for no output or text, kStatusNoMemory. Outputs are written only on
// success.
//
// Threads: any. A callback may destroy the dispatcher that runs it: the thread isn't joined then
// and ends when the callback has returned.

#pragma once

#include <stdint.h>

#include "../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

// kStatusInvalidArgument if the id is neither a queue nor a group. Doesn't test the open flag.
PELMO_NODISCARD pelmoStatus pelmoDispatcher_CreateEx(uint32_t* out,
                                                     uint32_t dispatchable,
                                                     double seconds);

// Waits for the thread's end.
pelmoStatus pelmoDispatcher_Destroy(uint32_t dispatcher);
PELMO_NODISCARD pelmoStatus pelmoDispatcher_Join(uint32_t dispatcher);

// The text is valid until the name changes or the dispatcher is destroyed. Setting copies the text.
PELMO_NODISCARD pelmoStatus pelmoDispatcher_GetName(uint32_t dispatcher, const char** out);
pelmoStatus pelmoDispatcher_SetName(uint32_t dispatcher, const char* name);

#ifdef __cplusplus
}
#endif
