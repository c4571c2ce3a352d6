// A form: one way to show the Snapshots of a run. It is a table of functions and of its options;
// the core opens the source, runs it, and calls the form.
//
//     settle  prepare  |  openOutput  |  start  |  snapshot  snapshot  ...  |  end
//
// Settings of the run are `traceSettings` (trace/settings.h): a form that reads the senders of
// subjects sets `countSenders` by an option or in its settle.
//
// Failure: a function that answers false has logged the reason; the program ends in order
// with status 1.
//
// Threads: all on the main thread, but for snapshot in a live run, which is called on the library's
// timer thread, and for sourceChanged. Calls of the others never overlap. While snapshot runs a
// live source goes on to be captured and counted, and a saved one waits.

#pragma once

#include <cstdint>
#include <span>

#include "programs/option_table.h"
#include "trace/counts/snapshot.h"

struct FormOption : OptionRow {
    // Takes each value as it was typed, and null for a switch; values last as long as the process.
    // Returns null, or what is wrong with the value: "out of range". A repeated option overwrites,
    // unless its store collects. One whose word for the value ends in "..." takes all words up to
    // the next option.
    const char* (*store)(const char* value);
};

struct Form {
    const char* name;
    const char* summary;  // one line
    std::span<const FormOption> options;

    // What options mean together, once all are stored. Returns null, or what is wrong. May be null.
    const char* (*settle)();

    // With the rights that the program was started with, before the source is opened: for what
    // needs them. May be null.
    bool (*prepare)();

    // The source is open, and there is no other thread: opens what the form writes to, or starts
    // what goes on with rights. What follows can't. May be null.
    bool (*openOutput)() = nullptr;

    // All rights are given up, the library is open. May be null.
    bool (*start)();

    // Takes the IP packet of each frame in place of the analysis, live on the capture thread, one
    // at a time. There are no Snapshots then. May be null.
    void (*packet)(TimeSpec time, const uint8_t* ip, size_t length) = nullptr;

    // Shows an interval. The Snapshot is sorted, its ports have their service ports, and it is
    // valid for the call. False where no further one is wanted, because it was enough or because
    // output failed; the run then ends in order, and `end` answers which.
    bool (*snapshot)(SnapHeader& snapshot);

    // How the source is has changed (watch/core/watched.h): a saved capture was read, an interface
    // is gone. Any thread, from the start on; beside a snapshot, too. May be null.
    void (*sourceChanged)() = nullptr;

    // After the last snapshot; the library is closed. `isWhole`: the source was read to its end,
    // or was a live one. Where it wasn't, the process ends by itself within a second.
    bool (*end)(bool isWhole);

    // Between two snapshots, unless an option says; 10 or what the help text of -u says.
    uint32_t intervalSeconds = 10;

    // Does a saved capture's progress belong on the terminal, if the standard error stream is one?
    bool showsProgress;

    // Does the program go on after the source's end, until it is stopped: of a saved capture, and
    // of an interface that is gone?
    bool staysOpen;
};
