// The Pelmo client library: opening and closing it, and all of its public calls in one include.
//
//     if (pelmo_Open() != kStatusSuccess) return;
//     ...
//     pelmo_Close();
//
// The first open starts the library's threads: a timer thread, an IO thread, and a dispatcher on
// the work queue; it makes the default queue, 1, and the intra-process transport, 10. Later opens
// count. The last close ends every object: no callback starts afterwards, and one that runs sees
// its event and queue ended behind it. The library can be opened again; ids go on counting.
//
// Environment, read at the first open: _PM_TRACING_MODULES lists the modules whose calls are
// logged, separated by ",", each with "=" and a subject behind it where only messages on that
// subject are wanted; _PM_TRACING_FILE names the file, "stderr" or "stdout" that the lines go to.
// Settings that can't be followed leave tracing off.
//
// Failure: kStatusInitFailed where the process' one-time set-up failed, then and ever after;
// kStatusOsError for a thread that waited for another's set-up in vain; kStatusNoMemory; the status
// of whatever couldn't be started. A failed open leaves nothing running. pelmo_Close on a closed
// library answers kStatusNotInitialized.
//
// Threads: any, but the process' first open comes ahead of all other use, that of messages
// included. The library lock, outermost of the library's, is held throughout. The last close waits
// for the callbacks that run on the library's own threads and on those of dispatchers, unless it is
// one of them that closes. So a callback on one of the library's threads doesn't open or wait for
// the close, where another thread may be closing: each would wait for the other.

#pragma once

#include "base/status.h"
#include "msg/codec.h"
#include "msg/envelope.h"
#include "msg/field.h"
#include "msg/message.h"
#include "msg/message_typed.h"
#include "msg/text.h"
#include "runtime/dispatch.h"
#include "runtime/dispatcher.h"
#include "runtime/event.h"
#include "runtime/fixed_ids.h"
#include "runtime/queue.h"
#include "runtime/queue_group.h"
#include "transport/transport.h"

[[nodiscard]] pelmoStatus pelmo_Open();

// Each successful open is matched by one close.
pelmoStatus pelmo_Close();

// Constant, whatever the library's state.
[[nodiscard]] const char* pelmo_Version();

// Returns once the library isn't open.
void pelmo_WaitClosed();
