// The pieces of a live run: the capture thread, the reports, and the wait for a stop.
//
// Threads: the main thread, unless it says otherwise.

#pragma once

#include "lib/base/status.h"

// The capture thread lives until libpcap fails, which the log tells; the process goes on without
// it. kStatusNoMemory, kStatusNotInitialized where the system refuses the thread.
[[nodiscard]] pelmoStatus captureThreadStart();

// Gives up the thread, which is neither stopped nor joined: libpcap may be waiting for a packet.
// Once the shutdown has had `statsLock` the thread only looks at that flag, however late its frame.
void captureThreadRelease();

// Every update interval, on the timer thread: hands on a Snapshot of the wall clock's time
// (trace/run/snapshot_sink.h). Capture doesn't wait for what is done with it. With an interval of 0
// there is one a millisecond at most.
void onSnapshotTimer();

// Seconds between two calls of it.
[[nodiscard]] double snapshotTimerSeconds();

// Returns when a signal has come. Where the run can't wait for one this returns at once, the log
// tells why, and the end is marked as failed. `onEnd` is called once the wait is over, before the
// clean-up.
void waitForStop(void (*onEnd)());
