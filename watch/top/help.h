// The help screen: the table of keys, and what the tables show.
//
// Threads: no state; the owner serialises.

#pragma once

#include "watch/top/screen.h"

// On a cleared screen of any size. `scroll` lines are above it; as few as bring the last into
// sight.
void helpDraw(size_t scroll, Screen& screen);
