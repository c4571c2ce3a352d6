// The daemon: it accepts clients, hands their messages to the exchange and the results to their
// queues, and cuts off clients that break the rules, don't start a session in time, or read too
// slowly.
//
// A batch is one read of one client. All that it gives to a receiver is queued first and written at
// its end, by one call of the system where that takes it; a message to a hundred clients is one
// buffer in a hundred queues.
//
// Limits: a connection has kStartSeconds to start its session. If more waits for a client than the
// options allow, and it takes too little for a time (pmd/pacing.h), it is cut off, the log
// reports it, and so does an advisory to the others of its service:
// "_PM.WARN.SYSTEM.CLIENT.SLOWREADER.SESSION". If all messages in memory take more than the
// options allow, the client that takes most is cut off: "_PM.WARN.SYSTEM.CLIENT.MEMORY.SESSION".
// The end of any client is reported as "_PM.INFO.SYSTEM.UNREACHABLE.TRANSPORT.SESSION": at once
// after its close notice, else when its session hasn't come back for a time (pmd/absence.h). A
// sender is throttled to its fastest receiver, unless that one has stalled: so a stream faster than
// all its readers doesn't cut them off, and one slow reader doesn't hold up the others. Without
// descriptors for more clients the daemon stops accepting until there are some. What one client can
// make the log write is paced.
//
// Threads: one thread starts and stops it. The rest runs on the library's IO thread and timer
// thread, under `daemonLock`.

#pragma once

#include <string>

#include "pmd/options.h"

inline constexpr double kStartSeconds = 10.0;

// Opens the library and listens. A daemon that isn't permanent hands its port over when one that is
// asks for it (pmd/stand_in.h), and ends a second later. `ended` runs on a thread of the library,
// once, when the daemon has come to its end by itself, which only one that isn't permanent does; it
// may not stop the server. On failure `error` is one line, and nothing is left.
[[nodiscard]] bool serverStart(const PmdOptions& options, void (*ended)(), std::string& error);

// Lets waiting messages leave, for two seconds at most, ends all connections and closes the
// library.
void serverStop();
