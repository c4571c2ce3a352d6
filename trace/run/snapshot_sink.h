// Where the Snapshots of a run go: a program's own table of functions. The tool's prints reports
// (trace/run/report_output.h).
//
// Threads: set before the start of a run. Its functions are called on the main thread of an
// offline run and on the timer thread of a live one, one at a time, with no lock held.

#pragma once

#include "lib/base/clock.h"
#include "trace/counts/snapshot.h"

struct SnapshotSink {
    // An offline run meets its first packet, of this time. May be null.
    void (*begin)(TimeSpec time);

    // The Snapshot is valid for the call, which may sort it.
    void (*take)(SnapHeader* snapshot);

    // Behind the last Snapshot of an offline run. May be null.
    void (*end)();

    // Is SnapHeader::source to be filled in? Costs some system calls a Snapshot.
    bool wantsSource;

    // Offline, intervals lie on a grid of the packets' own times that begins with the first packet:
    // an interval without packets isn't handed on, and where the clock goes back by more than an
    // interval a new grid begins. Live, an interval below a hundredth of its length, as a timer
    // that was held up brings, is joined with the next, and so is one that ends late by half of it:
    // its frames aren't read yet. Without it they are those of the tool (trace/run/run_modes.h).
    bool keepsGrid = false;

    // Adds to it what the program's own source has to say. May be null.
    void (*fillSource)(SnapSource* source) = nullptr;

    // Capture has ended with an error, in libpcap's words; on the capture thread. True where it is
    // to begin again. May be null: the run goes on without frames.
    bool (*captureFailed)(const char* reason) = nullptr;
};

extern SnapshotSink snapshotSink;

// Takes the Snapshot of all that was counted by `time` and hands it to the sink. Without memory for
// one nothing is handed on, and the next covers both intervals. Frames for a capture file are
// handed to the system before it.
void snapshotHandOn(TimeSpec time);
