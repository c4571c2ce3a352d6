// What the tool asks of the library's runtime: to open and close it, timers, and the threads of a
// live run. Empty until the runtime fills it, ahead of traceMain.
//
// With an empty table an offline run leaves out the steps that need the runtime, so that its
// capture file isn't checked for rotation, and a live run refuses to start.

#pragma once

#include "lib/base/status.h"

struct RuntimeOps {
    pelmoStatus (*open)() = nullptr;
    void (*close)() = nullptr;  // ends the timers too

    // A repeating timer on the timer queue; it lives until the close.
    pelmoStatus (*createTimer)(double seconds, void (*onTick)()) = nullptr;

    // The capture thread runs `capture` and ends with it. Releasing gives up the thread object; it
    // neither stops nor joins the thread.
    pelmoStatus (*startCaptureThread)(void (*capture)()) = nullptr;
    void (*releaseCaptureThread)() = nullptr;

    // Returns when the program is to stop.
    void (*waitForStop)() = nullptr;
};

extern RuntimeOps runtimeOps;

[[nodiscard]] inline bool runtimeAttached() {
    return runtimeOps.open != nullptr;
}
