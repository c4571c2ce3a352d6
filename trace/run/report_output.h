// Prints a report and sees whether it came out. Reports that can't be written to the standard
// output are told in the log, once until they get through again; an offline run then doesn't end
// normally. Where reports go to the log's file, the log sees to that itself.
//
// Threads: one at a time, as for printSnapshot.

#pragma once

#include "trace/counts/snapshot.h"

void reportPrint(SnapHeader* snapshot);

// Does the same for whatever else was written to the standard output.
void reportCheckOutput();
