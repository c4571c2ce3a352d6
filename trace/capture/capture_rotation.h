// Keeps the capture file within its limit: once a second its size is looked at, and a full file is
// moved aside under a number of the ring, or started over where the ring has none.
//
// The limit is a trigger, not a cap: the file grows by what arrives between two looks.
//
// Failure: logged. If the rename fails the file goes on, beyond its limit, and each look tries
// again; that is logged once until a rename succeeds. A file that can't be opened again ends saving
// and rotation; analysis goes on.
//
// Threads: the timer thread alone. Takes `statsLock` for the whole of a rotation, so that no frame
// is saved meanwhile.

#pragma once

#include <cstddef>

// What the name of a numbered file has room for, with its NUL. A longer one would be cut.
inline constexpr size_t kCaptureNameBytes = 260;

// Called before the first check, after the settings and the file are there: numbers begin at 1.
void captureRotationStart();

void onRotationTimer();
