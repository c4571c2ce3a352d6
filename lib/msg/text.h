// One readable line for any message:
//
//     {sub=[A.B] mtype="D" data={load[5]=1.5 name="x" tags=["a" "b"] NULL=7}}
//
// Fields in image order, each as name, "=", value; an id follows the name in brackets. A value that
// doesn't decode reads "[NO DECODER AVAILABLE]", one that has no text, or is nested deeper than
// kMostTextDepth, "[NO CONVERTER AVAILABLE]"; neither is a failure. A text value shows up to its
// first NUL, without any escaping.
//
// Ownership: the text belongs to the message, like what a read returns. Each call makes a new one
// and keeps nothing else.
//
// Failure: kStatusInvalidMessage, kStatusInvalidArgument for no output, kStatusCorruptMessage for a
// malformed image, kStatusNoMemory.
//
// Threads: as the message.

#pragma once

#include <stddef.h>
#include <stdint.h>

#include "../base/status.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pelmoMsg pelmoMsg;

// Levels of messages within messages. A packet could hold thousands, each a level of recursion.
enum PELMO_UNDERLYING(uint32_t) { kMostTextDepth = 128 };

// The fields that the message shows: the application's, or the envelope's while it is closed.
PELMO_NODISCARD pelmoStatus pelmoMsg_ConvertToString(const pelmoMsg* msg, const char** out);

// The same, and its length without the NUL.
PELMO_NODISCARD pelmoStatus pelmoMsg_ConvertToStringN(const pelmoMsg* msg,
                                                      const char** out,
                                                      size_t* outLength);

// To the standard error stream, with a line break.
pelmoStatus pelmoMsg_Print(const pelmoMsg* msg);

#ifdef __cplusplus
}
#endif
