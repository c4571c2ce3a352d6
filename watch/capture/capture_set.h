// The saved captures of a run as one: files are read in the order of their first frames, and where
// they overlap frame by frame in the order of time. Frames of one file stay in the file's order.
//
//     first file   |--------------|
//     second file            |-----------|
//     third file                                |------------|
//
// A file is read from when its time comes.
//
// A file that can't be read, or that ends early, is logged in one line that names it; the others go
// on.
//
// Ownership: the set has a descriptor of each file from its opening to its end, so that a ring of
// files may go on turning. A frame is borrowed until the next call.
//
// Threads: one opens and reads; captureSetStop and captureSetExtent are for any.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "watch/capture/capture_reader.h"

// A span of time, both ends belong to it. Seconds since 1970.
struct CaptureSpan {
    int64_t fromSeconds = INT64_MIN;
    uint32_t fromNanoseconds = 0;
    int64_t toSeconds = INT64_MAX;
    uint32_t toNanoseconds = 0;
};

struct CaptureSet;

struct CaptureSetDelete {
    void operator()(CaptureSet* set) const;
};
using OwnedCaptureSet = std::unique_ptr<CaptureSet, CaptureSetDelete>;

// Opens the named files; "-" is the standard input, and a folder is read as the files in it but for
// hidden ones and folders. Reads nothing and waits for nothing, so that it can be done with rights
// that are given up before anything is parsed.
[[nodiscard]] OwnedCaptureSet captureSetOpen(const std::vector<std::string>& names);

// Finds out what each regular file is and when it begins. False where none can be read. Waits for
// no pipe.
[[nodiscard]] bool captureSetBegin(CaptureSet& set);

// After the beginning: waits until each pipe shows what it is or, with `untilFrames`, has its first
// frame. False where no file can be read. captureSetStop ends the wait: the result is true then,
// and the reading gives kStopped.
[[nodiscard]] bool captureSetAwait(CaptureSet& set, bool untilFrames);

// After the wait for frames: when the first one was captured. 0 without frames.
[[nodiscard]] int64_t captureSetFirstSeconds(const CaptureSet& set);

// After the beginning: leaves out what isn't of the span. Of a regular file that lies outside it
// only the first frame is read, and its last bytes, unless it is a short or a compressed one; a
// file within ten seconds of the span is read until it leaves them, as frames may be out of order.
void captureSetLimit(CaptureSet& set, const CaptureSpan& span);

// kFrame, kEnd or kStopped.
[[nodiscard]] ReadResult captureSetNext(CaptureSet& set, CaptureFrame* frame);

// The name of a frame's file. Any thread, after the beginning.
[[nodiscard]] const std::string& captureSetFileName(const CaptureSet& set, uint32_t file);

// How many files there are, read or not.
[[nodiscard]] size_t captureSetFiles(const CaptureSet& set);

// A file was logged as unreadable or as ending early.
[[nodiscard]] bool captureSetHasFault(const CaptureSet& set);

void captureSetStop(CaptureSet& set);

// How far the regular files were read, and their size. Zeros where one is no regular file.
struct CaptureExtent {
    uint64_t readBytes, fileBytes;
};
[[nodiscard]] CaptureExtent captureSetExtent(const CaptureSet& set);

// Brings that up to date, which else happens every few thousand frames. The thread that reads.
void captureSetLook(CaptureSet& set);

// As captureReaderSnapshotBytes, of all files that were begun.
[[nodiscard]] uint32_t captureSetSnapshotBytes(const CaptureSet& set);
