// The end of a run: asked for by SIGINT, SIGTERM or a hang-up, or by the program itself. It ends a
// live run's wait and breaks off the reading of a saved capture.
//
// From then on the process has 0.7 seconds; what isn't written by then is given up.
//
// Threads: any, where nothing else is said.

#pragma once

#include "lib/base/status.h"

// Once, on the main thread, with the library open. The status of stopWaitInit.
[[nodiscard]] pelmoStatus stopArm();

// Asks for the end as a signal does, without marking the run as cut off.
void stopAsk();

// A saved capture was read to its end: from here a signal cuts nothing off.
void stopSourceRead();

[[nodiscard]] bool stopIsAsked();

// Readable from when the end is asked for, for threads that wait for other descriptors too. It is
// never read.
[[nodiscard]] int stopDescriptor();

// Did a signal ask first?
[[nodiscard]] bool stopIsBySignal();

// Waits so many seconds, or until the end is asked for. False where it is.
[[nodiscard]] bool stopSleep(double seconds);

// On the main thread: returns when the end is asked for, or where it can't be waited for.
void stopAwait();

// On the main thread, before the library is closed. From here a signal ends the process at once.
void stopDisarm();
