// The report: one Snapshot as text. A head line, then up to four tables of fixed width (multicast,
// retransmission, point-to-point, subjects), as counts or as rates, and the host status messages.
// Which of them, and in which of the two views, the display settings say.
//
// It goes to the log stream, or to the standard output stream where the log is on the standard
// error stream. The stream is flushed, and then the log's rotation is checked.
//
// The multicast table teaches the tool which service port a host's SCid belongs to; the
// retransmission table shows it, in this report and in later ones.
//
// Ownership: the Snapshot is the caller's, stays good for the length of the call, and comes back
// sorted, with the sums of its subjects and the nets of its hosts filled in.
//
// Failure: none. Without memory for a service port the row stands all the same.
//
// Threads: one report at a time, on the thread that took the Snapshot, with no lock held. Rows are
// written whole, many at a time: a log line of another thread lands between two rows.

#pragma once

#include "trace/counts/snapshot.h"

void printSnapshot(SnapHeader* snapshot);
