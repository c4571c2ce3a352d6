// Tells in the log when the interface of a live run goes down, and when it is up again. An
// interface without carrier counts as down. Capture itself goes on by itself once it is up.
//
// The system reports each change by a netlink message (RFC 3549), so that none is too short to be
// seen. If the system refuses that, or the source is no interface of its own ("any"), nothing is
// logged.
//
// Threads: the main thread starts it, with the library open; lines come from the first IO thread.
// The watch ends with the library.

#pragma once

void linkWatchStart(const char* interfaceName);
