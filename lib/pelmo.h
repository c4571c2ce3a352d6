// The Pelmo client library: opening and closing it, and all of its public calls in one include.
//
//     if (pelmo_Open() != kStatusSuccess) return;
//     ...
//     pelmo_Close();
//
// The first open starts the library's threads: a timer thread, an IO thread, and a dispatcher on
// the work queue; it makes the default queue, 1, and the intra-process transport, 10. Later opens
// only count. The last close ends every object: no callback starts afterwards, and a callback that
// is running finds that its queue is gone, while its event stays until it has returned. What
// network transports have sent leaves first, as by pelmoTransport_Destroy; anyone who waits for a
// daemon gets kStatusDaemonNotConnected. The library can be opened again; ids are not used again
// until their counter wraps around.
//
// Environment. Read at the first open: _PM_TRACING_MODULES lists the modules whose calls are
// logged, separated by ",", each followed by "=" and a subject if only messages on that
// subject are wanted; _PM_TRACING_FILE names the file, "stderr" or "stdout" that the lines go to.
// Tracing stays off when these settings are invalid. Read at each connection to a daemon:
// PELMO_BINDADDR, a dotted address of this host, is the address it goes out from, if the system
// allows that; PELMO_DISABLE_SO_KEEPALIVE, with any value, leaves the system's own probes of a
// silent peer off; PELMO_DISABLE_UDP_SEGMENT, likewise, sends each packet of a direct endpoint by a
// call of its own; IPQ_ACCOUNTING is a number whose bits print to the standard output stream: 1 a
// summary of the connection at its close, 2 the sizes of its reads, 4 those of its writes.
//
// Failure: kStatusInitFailed when the one-time set-up of the process failed, at that call and at
// every later one; kStatusOsError for a thread that gave up waiting for another thread's set-up;
// kStatusNoMemory; the status of whatever couldn't be started. A failed open leaves nothing
// running. pelmo_Close on a closed library answers kStatusNotInitialized.
//
// Threads: any, but the first open of the process comes before all other use, that of messages
// included. The library lock, the outermost lock of the library, is held throughout. The last close
// waits for the callbacks that run on the library's own threads and on dispatcher threads, unless
// it is called from one of them. So a callback on one of these threads must not open the library or
// wait for a close while another thread may be closing it: the two would deadlock.

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
#include "transport/circuit/circuit.h"
#include "transport/transport.h"

#ifdef __cplusplus
extern "C" {
#endif

PELMO_NODISCARD pelmoStatus pelmo_Open(void);

// Each successful open needs one close. kStatusDeliveryFailed for a last close where not all that
// transports had sent is known to have left: the library is closed all the same.
pelmoStatus pelmo_Close(void);

// The text is constant and can be read whether the library is open or not.
PELMO_NODISCARD const char* pelmo_Version(void);

// The library's own lines, of warnings that no listener took and of what it couldn't do. They go to
// the standard error stream, with a time stamp, and with a hook to the hook alone, without one; the
// same line comes at most once a second, with a count of those that were left out: "... (81 more)".
// The hook runs on whatever thread has something to report, possibly with locks of the library
// held: it may call nothing of the library, and should be quick. The line has no line break at its
// end and ends with the call. On return no call of the former hook runs; null removes it. The hook
// outlives closes of the library.
typedef void (*pelmoLogHook)(const char* line, void* closure);
void pelmo_SetLogHook(pelmoLogHook hook, void* closure);

// Returns once the library isn't open.
void pelmo_WaitClosed(void);

#ifdef __cplusplus
}
#endif
