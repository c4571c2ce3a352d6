// What the tool does with its Snapshots: prints a report of each and sees whether it came out.
// Reports that can't be written to the standard output are logged, once until they get through
// again; an offline run then doesn't end normally. Where reports go to the log's file, the
// log sees to that itself.
//
// Threads: those of the sink.

#pragma once

#include "trace/run/snapshot_sink.h"

// An offline run logs when its capture begins, and sees at its end whether all came out
// that was written to the standard output.
extern const SnapshotSink kReportSink;
