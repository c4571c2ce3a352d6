// The link between a network transport and its daemon: one connection, made again when it breaks.
//
//     dial.h, handshake.h        socket, greeting, frames -> an inter-process queue
//     session.h                  start message, reply, the session's name
//     interest.h                 what the transport listens to
//     reconnect.h                how long a broken connection waits
//
// A link is connected while it has a queue. A break is handled once: the thread that sees it first,
// a sender or the IO thread, takes the queue off the link, closes it, runs the hooks, sends the
// advisory "_PM.WARN.SYSTEM.PMD.DISCONNECTED", and sets a timer on the work queue. That queue's
// thread connects again, one link at a time, so that a daemon that doesn't answer holds up no
// timer. The session keeps its name. The new connection is reported by
// "_PM.INFO.SYSTEM.PMD.RECONNECTED", always before the next break.
//
// A connection becomes the link's only once its daemon has all start and interest messages. Changes
// of interest and of settings that callers make meanwhile are kept and follow in order; messages of
// applications find no connection.
//
// Ownership: a link belongs to its transport. A queue holds a reference to the transport until its
// last callback has ended.
//
// Threads: any. A link's lock (rank kLink) is held only briefly, never while something is sent,
// connected, closed or reported.

#pragma once

// Fills daemonLinkOps. Called before the first open.
void daemonLinkAttach();

// For the close of the library, once it no longer counts as open: connects under way end without
// waiting any further, and no other begins.
void daemonLinksInterrupt();
