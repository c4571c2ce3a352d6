// How far a saved capture was read, as one line of a terminal that is drawn over and over:
//
//     45%  1.2 of 2.7 GB  0:12 left
//
// It is drawn on the standard error stream, twice a second, and only where that is a terminal and
// the capture has a size.
//
// Threads: start and end on the main thread; it is drawn on the library's timer thread.

#pragma once

#include <cstddef>

#include "lib/base/status.h"
#include "watch/capture/source.h"

inline constexpr size_t kProgressBytes = 64;

// Once the library is open. Answers the status of creating a timer.
[[nodiscard]] pelmoStatus progressStart();

// Clears the line; from here on nothing is drawn.
void progressEnd();

// The line's text, after so many seconds of reading. Empty while there is nothing to say.
void progressText(char (&text)[kProgressBytes], double seconds, const CaptureExtent& extent);
