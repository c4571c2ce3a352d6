// Service ports: the UDP port on which a host and its SCid were last shown as a sender of multicast
// traffic. Retransmission packets use another port, but their table shows this one.
//
// A host shown in the multicast table is remembered with the port of its last row until the process
// ends, so a later Snapshot still finds it.
//
// Failure: when memory runs out, which is logged, the host isn't remembered, or keeps its earlier
// port.
//
// Threads: one call at a time, on the thread that prints; no lock.

#pragma once

#include "lib/base/status.h"
#include "trace/counts/snapshot.h"

// Remembers the hosts of a sorted Snapshot, and then sets each port's `servicePort` to the service
// port of the first of its `rlHosts` that is known. Ports without a known host keep their own
// number.
void servicesFind(SnapHeader* snapshot);

// Forgets everything. For programs that run more than once: tests, fuzzing.
void servicesForget();
