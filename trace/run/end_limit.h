// The limit of a live run's end. A step of the orderly end may never return, where a reader of
// reports or of a saved capture has stalled or a disk hangs; the limit ends the process all the
// same.
//
// Threads: the main thread.

#pragma once

// So many seconds from now the process ends, with the status of trace/run/end_status.h, unless it
// has ended by then. What stands in buffers is given up. Uses SIGALRM.
void endLimitStart(double seconds);
