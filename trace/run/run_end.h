// The end of a run: its exit status, and a limit on its time.
//
// A run that lost something it was asked to write, or that can't wait for its stop, marks its end
// as failed. The mark logs nothing: its caller logs the reason. Nothing takes a mark back.
//
// A step of a live run's orderly end may never return, if a reader of reports or of a saved capture
// has stalled or a disk hangs. The limit ends the process anyway.

#pragma once

// Any thread, and signal handlers.
void endMarkFailed();

// 0, or 1 after a mark. Any thread, and signal handlers.
[[nodiscard]] int endStatus();

// Ends the process with endStatus() after so many seconds, unless it has ended by then. What is
// left in buffers is lost. Uses SIGALRM. Main thread.
void endLimitStart(double seconds);
