// The host status messages of a net, as text at the end of a report: a heading, and each message on
// a line of its own, in the order of arrival.
//
// Only the framing of a kept message was checked; its fields come from outside and may be anything.
// A message that can't be shown as text is replaced by a line:
//
//     [message of 74 bytes without text: The contents of the message are corrupt]
//
// Memory: one message object at a time.
//
// Threads: called on the thread that prints; no lock. The messages belong to the Snapshot.

#pragma once

#include <cstdint>
#include <cstdio>

#include "trace/counts/snapshot.h"

// `port` in network order. A net without messages prints nothing.
void printHostMessages(uint16_t port, const SnapNet& net, FILE* stream);
