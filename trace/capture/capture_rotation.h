// Keeps the capture file within its limit: once a second its size is looked at, and a full file is
// moved aside under a number of the ring, or started over where the ring has none.
//
// The limit is a trigger, not a cap: the file grows by what arrives between two looks.
//
// Failure: logged. A rename that fails loses what the file held, since capture goes on in a new one
// of the same name. A file that can't be opened anew ends saving and rotation; analysis goes on.
//
// Threads: the timer thread alone. Takes `statsLock` for the whole of a rotation, so that no frame
// is written while the handle changes.

#pragma once

// Ahead of the first check, once the settings and the file stand: the numbers begin at 1.
void captureRotationStart();

void onRotationTimer();
