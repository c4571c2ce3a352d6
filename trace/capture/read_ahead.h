// A source of bytes that is read in large steps, for two readers that take turns: one that wants
// the bytes as they are in the buffer, and libpcap, which wants a stream. Both go on at the same
// place, wherever the other has stopped.
//
//     | room for a rest |          window          |
//                | rest | bytes of one step   |
//                begin                        end
//
// A step fills the window from its start, so that all steps through a file begin on a page of it. A
// rest that is too short for its reader first moves to just before the window. A step takes
// what the system has: a pipe's bytes are handed on as they come, and a file that grows is read to
// where it ends at that moment.
//
// Ownership: the descriptor is the caller's until a stream takes it. The record must outlive the
// stream.
//
// The bytes come from a descriptor, or from a function that has its own source.
//
// Failure: the stream reports the system's faults as streams do, by errno.
//
// Threads: no lock; one thread reads a source.

#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

// Each system call brings many packets, and the window stays in the second cache on its way from
// the system to them.
constexpr size_t kReadAheadWindowBytes = 256 << 10;
constexpr size_t kReadAheadMostHeldBytes = 68 << 10;

// What read(2) does: fills the buffer's beginning, and answers 0 at the end and -1 on failure.
using ReadAheadFunction = ssize_t (*)(void* context, void* buffer, size_t sizeBytes);

struct ReadAhead {
    int descriptor;

    // In place of the descriptor's bytes, unless null. It is called without a wait before it.
    ReadAheadFunction readBytes;
    void* context;

    // Set by any thread. It orders nothing, hence relaxed: a reader finds it at the next step. The
    // record's own, unless sources share one; null before the source begins.
    std::atomic<bool>* stopped;
    std::atomic<bool> ownStopped;

    const uint8_t* begin;  // of what isn't taken yet
    const uint8_t* end;
    uint8_t bytes[kReadAheadMostHeldBytes + kReadAheadWindowBytes];
};

void readAheadBegin(ReadAhead& source, int descriptor);
void readAheadBeginWith(ReadAhead& source, ReadAheadFunction readBytes, void* context);

// Reads on until so many bytes, at most kReadAheadMostHeldBytes, are held from `begin` on. False if
// the source ended or failed first; what it had is held then.
[[nodiscard]] bool readAheadFill(ReadAhead& source, size_t sizeBytes);

// Passes so many bytes over. False as above; all that there was has been passed over then.
[[nodiscard]] bool readAheadDrop(ReadAhead& source, uint64_t sizeBytes);

// Makes all further steps find the source's end, also one that waits for a pipe, in a quarter of a
// second.
void readAheadStop(ReadAhead& source);
[[nodiscard]] bool readAheadIsStopped(const ReadAhead& source);

[[nodiscard]] inline size_t readAheadHeld(const ReadAhead& source) {
    return static_cast<size_t>(source.end - source.begin);
}

[[nodiscard]] inline bool readAheadHolds(ReadAhead& source, size_t sizeBytes) {
    return sizeBytes <= readAheadHeld(source) || readAheadFill(source, sizeBytes);
}

// Both give a stream that goes on at `begin` and closes the descriptor, or null when memory runs
// out. The shared one holds no bytes of its own, so that turns may be taken, and is slow: the C
// library reads such a stream byte by byte. The other ends all turns; where the source can be set
// back it's an ordinary one.
[[nodiscard]] FILE* readAheadShare(ReadAhead& source);
[[nodiscard]] FILE* readAheadHandOver(ReadAhead& source);
