// The last moment of a run. The readers of log, reports and capture file may stall, disks hang:
// each step of an orderly end tries what it can, and this ends the process where one never returns.
//
// Threads: the main thread.

#pragma once

// So many seconds from now the process ends, with the status of trace/run/end_status.h, unless it
// has ended by then. What stands in buffers is given up. Uses SIGALRM.
void endLimitStart(double seconds);
