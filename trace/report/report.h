// The report: one Snapshot as text. It has a head line, up to four tables of fixed width
// (multicast, retransmission, point-to-point, subjects), as counts or as rates, and the host status
// messages. The display settings choose the tables and the view.
//
// It goes to the log stream, or to the standard output stream when the log is on the standard error
// stream. The stream is flushed, and then the log's rotation is checked.
//
// When the multicast table shows hosts, their service ports are remembered for the retransmission
// table of this report and of later ones (trace/counts/services.h).
//
// Ownership: the Snapshot belongs to the caller and must stay valid during the call, which sorts it
// and fills in the service ports.
//
// Failure: none. Without memory for a service port the row is printed all the same.
//
// Threads: one report at a time, on the thread that took the Snapshot, with no lock held. Rows are
// written whole, many at a time: a log line of another thread lands between two rows.

#pragma once

#include "trace/counts/snapshot.h"

void printSnapshot(SnapHeader* snapshot);
