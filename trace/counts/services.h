// Service ports: on which UDP port a host and its SCid were last shown as a sender of multicast
// traffic. Retransmission packets come to another port, and their table shows this one.
//
// A host is remembered while the multicast table shows it, with the port of its last row, and until
// the process ends: so a later Snapshot still finds it.
//
// Failure: without memory, which is logged, the host isn't remembered, or keeps what it had.
//
// Threads: one at a time, on the thread that prints; no lock.

#pragma once

#include "lib/base/status.h"
#include "trace/counts/snapshot.h"

// Remembers the hosts of a sorted Snapshot, and then sets each port's `servicePort`: that of the
// first of its `rlHosts` that is known. Ports without one keep their own number.
void servicesFind(SnapHeader* snapshot);

// Forgets everything. For programs that run more than once: tests, fuzzing.
void servicesForget();
