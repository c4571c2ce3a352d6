// The link between a network transport and its daemon: one connection, made anew when it breaks.
//
//     dial.h, handshake.h        socket, greeting, frames -> an inter-process queue
//     session.h                  start message, reply, the session's name
//     interest.h                 what the transport listens to
//     reconnect.h                how long a broken connection waits
//
// A link is connected while it has a queue. What takes it away, be it a send or the IO thread, does
// so once: the first who sees a break closes the queue, runs the hooks, tells by the advisory
// "_PM.WARN.SYSTEM.PMD.DISCONNECTED", and sets a timer on the work queue, whose thread connects
// again, one link at a time: a daemon that doesn't answer holds up no timer. The session keeps its
// name. The return is reported by "_PM.INFO.SYSTEM.PMD.RECONNECTED", always before the next break.
//
// A connection is the link's only once its daemon has all start and interest messages. What the
// transport's callers want to tell the daemon meanwhile, of interest and of settings, waits and
// follows in order; messages of applications find no connection.
//
// Ownership: a link belongs to its transport. A queue holds a reference to the transport until its
// last callback has ended.
//
// Threads: any. A link's lock (rank kLink) is held for moments; it is never held while something is
// sent, connected, closed or told.

#pragma once

// Fills daemonLinkOps. Called before the first open.
void daemonLinkAttach();

// For the close of the library, once it no longer counts as open: connects under way end without
// waiting any further, and no other begins.
void daemonLinksInterrupt();
