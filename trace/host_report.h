// The host status messages of a net, as text at the end of a report.
//
// Missing so far: the messages themselves. The text of a message isn't available yet, so that only
// the lines around the messages are printed.
//
// Threads: on the thread that prints; no lock.

#pragma once

#include <cstdint>
#include <cstdio>

#include "trace/snapshot.h"

// `port` in network order. A net without messages prints nothing.
void printHostMessages(uint16_t port, const SnapNet& net, FILE* stream);
