// Where lines of text leave the process: a descriptor, written without a buffer. What can't be
// written is counted by lines and is nothing that the writer has to look after; each write tries
// anew.
//
// Lines stay whole. A file keeps none of a line whose end found no room. Where a pipe, a socket or
// a terminal took the begin of a line, what comes next begins a line of its own.
//
// A write waits for the reader of a pipe as long as that takes, until waits are bounded: from then
// on whatever a reader doesn't take in time is lost.
//
// Ownership: the sink closes its descriptor, if it owns one, when it gets another.
//
// Failure: `error` tells why the last write lost text, as errno does; 0 where it lost none.
//
// Threads: a sink belongs to one at a time. Bounding the waits: any.

#pragma once

#include <cstddef>
#include <cstdint>

struct TextSink {
    int descriptor = -1;  // none: text is dropped and not counted
    bool isFile = false;  // a regular file, which never waits and can be cut back
    bool isInsideLine = false;

    int error = 0;
    uint64_t lostLines = 0;  // the owner clears it, once it has told them
};

// Takes the descriptor over, or -1 for none.
void textSinkSet(TextSink* sink, int descriptor);

// Returns how many bytes stay written.
size_t textSinkWrite(TextSink* sink, const char* text, size_t sizeBytes);

// For the end of the process: no write in any sink, those under way among them, waits for longer
// than these seconds from now. Infinity lifts the bound.
void textSinksBoundWaits(double seconds);
