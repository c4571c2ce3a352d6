// The host status messages of a net, as text at the end of a report: a heading, and each message on
// a line of its own, in the order of arrival.
//
// A message was held for its framing; its fields come from outside and may be anything. One that
// has no text is told of in its place:
//
//     [message of 74 bytes without text: The contents of the message are corrupt]
//
// Memory: of one message at a time.
//
// Threads: on the thread that prints; no lock. The messages are the Snapshot's.

#pragma once

#include <cstdint>
#include <cstdio>

#include "trace/counts/snapshot.h"

// `port` in network order. A net without messages prints nothing.
void printHostMessages(uint16_t port, const SnapNet& net, FILE* stream);
