// The report: one Snapshot as text. A head line, then up to four tables of fixed width (multicast,
// retransmission, point-to-point, subjects), as counts or as rates, and the host status messages.
// Which of them, and in which of the two views, the display settings say.
//
// It goes to the log stream, or to the standard output stream where the log is on the standard
// error stream. The stream is flushed, and then the log's rotation is checked.
//
// Where the multicast table shows hosts, their service ports are remembered for the retransmission
// table of this report and of later ones (trace/counts/services.h).
//
// Ownership: the Snapshot is the caller's, stays good for the length of the call, and comes back
// sorted, with the service ports filled in.
//
// Failure: none. Without memory for a service port the row stands all the same.
//
// Threads: one report at a time, on the thread that took the Snapshot, with no lock held. Rows are
// written whole, many at a time: a log line of another thread lands between two rows.

#pragma once

#include "trace/counts/snapshot.h"

void printSnapshot(SnapHeader* snapshot);
