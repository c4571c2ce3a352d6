// The pace of a saved capture: when an interval of it is due, if its time runs `speed` times as
// fast as the clock, and stops while it is paused. Where reading can't keep up the capture's time
// waits for it.
//
// Units: seconds. `now` is the steady clock's, capture times are the packets' own.
//
// Threads: no lock; the owner serialises.

#pragma once

struct ReplayPace {
    double speed = 1;
    bool isPaused = false;

    bool hasBegun = false;
    double captureSeconds = 0;  // how far the capture's time is, at `atSeconds`
    double atSeconds = 0;
};

// From now on.
void paceSet(ReplayPace& pace, double now, double speed, bool isPaused);

// Seconds from now until the interval that ended at `captureSeconds` is due: 0 where it is,
// infinity in a pause. The first one is due at once.
[[nodiscard]] double paceWait(ReplayPace& pace, double now, double captureSeconds);

// The interval is shown.
void paceShow(ReplayPace& pace, double now, double captureSeconds);
