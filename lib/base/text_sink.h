// The output of the log: a descriptor that lines of text are written to, without a buffer. A line
// that can't be written is lost and counted; the next one is tried all the same.
//
// Lines stay whole. Where a file has room for a part of a line only, that part is taken off again.
// Where a pipe, a socket or a terminal took a part, the next text begins on a line of its own.
//
// A write waits for the reader of a pipe as long as it takes. Once waits are bounded, what the
// reader doesn't take in time is lost.
//
// Ownership: a sink owns its descriptor, and closes it when it is given another.
//
// Failure: `error` is the errno of the last write if that lost text, else 0.
//
// Threads: a sink has one user at a time. Waits may be bounded by any thread.

#pragma once

#include <cstddef>
#include <cstdint>

struct TextSink {
    int descriptor = -1;        // -1 for none: text is dropped, and not counted as lost
    bool isFile = false;        // a regular file: it never waits and can be cut back
    bool isInsideLine = false;  // what was written last has no line break at its end

    int error = 0;
    uint64_t lostLines = 0;  // cleared by the user once reported
    int lossError = 0;       // of the last write that lost text; cleared by the user too
};

// Takes the descriptor, which may be -1 for none.
void textSinkSet(TextSink* sink, int descriptor);

// Returns how many bytes were written and not taken off again.
size_t textSinkWrite(TextSink* sink, const char* text, size_t sizeBytes);

// For the end of the process: after this many seconds no write of any sink waits any more. Infinity
// lifts the bound.
void textSinksBoundWaits(double seconds);
