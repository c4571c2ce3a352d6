// The pieces of a live run that the runtime's threads call.

#pragma once

// The capture thread's life: until libpcap fails. The process goes on without it.
void runLiveCapture();

// Every update interval, on the timer thread: takes a snapshot at the wall clock's time and prints
// it. Capture waits for the snapshot, not for the printing.
void onSnapshotTimer();
