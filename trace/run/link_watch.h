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

#include <cstdint>

enum class LinkChange : uint8_t { kUp, kDown, kGone };

// `onChange` is called on that thread for each change, and by the caller where the link is down
// from the start; it may be null.
void linkWatchStart(const char* interfaceName, void (*onChange)(LinkChange change));

// The interface was made again, and has another index: reports how it is. Any thread.
void linkWatchFollow();
