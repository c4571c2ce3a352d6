// Reads one capture, frame by frame: pcap files of both byte orders, with microseconds or
// nanoseconds, and pcapng files, whose interfaces may differ in link type and clock; either may be
// compressed by gzip, zstd, xz, bzip2 or lz4, which its first bytes show.
//
//     descriptor -> read ahead -> [decompression -> read ahead] -> records or blocks -> frames
//
// Sizes in a file are checked before they are used. A frame larger than any UDP datagram needs is
// handed on as if the capture had cut it.
//
// Public formats: draft-ietf-opsawg-pcap and draft-ietf-opsawg-pcapng.
//
// Ownership: the descriptor is the reader's from the opening on. A frame's bytes are borrowed until
// the next call.
//
// Failure: see ReadResult; `fault` then says in words what is wrong. What was read before counts.
//
// Threads: one reads.

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "watch/capture/capture_tail.h"

struct CaptureFrame {
    int64_t seconds;  // since 1970, UTC
    uint32_t nanoseconds;
    uint32_t capturedBytes;
    uint32_t wireBytes;
    uint16_t linkType;  // watch/capture/peel.h
    const uint8_t* bytes;

    // Where the frame is in its set (capture_set.h): its file, and its number there from 1 on.
    uint32_t file = 0;
    uint64_t number = 0;
};

enum class ReadResult : uint8_t {
    kFrame,
    kEnd,
    kEndsEarly,  // in the midst of a frame, as a file does that is still written
    kFault,  // the file contradicts itself, its compressed data ends early, or the system failed
    kStopped,
};

struct CaptureReader;

struct CaptureReaderDelete {
    void operator()(CaptureReader* reader) const;
};
using OwnedCaptureReader = std::unique_ptr<CaptureReader, CaptureReaderDelete>;

// Reads nothing yet. Null without memory; the descriptor is closed then. Any thread sets `stopped`,
// which outlives the reader: the reading ends within a quarter of a second then, also one that
// waits for a pipe.
[[nodiscard]] OwnedCaptureReader captureReaderOpen(int descriptor, std::atomic<bool>& stopped);

// Finds out what the file is, and reads a pcap file's head or the first interface of a pcapng file:
// kFrame, or what the first call of captureReaderNext would give, which else does this itself. A
// kFault says "it isn't a capture ...".
[[nodiscard]] ReadResult captureReaderBegin(CaptureReader& reader);

[[nodiscard]] ReadResult captureReaderNext(CaptureReader& reader, CaptureFrame* frame);

// Once a frame was read: how all frames have their times. None where the file is compressed, or has
// interfaces whose clocks differ.
[[nodiscard]] std::optional<CaptureClock> captureReaderClock(const CaptureReader& reader);

// What the last result but kFrame was about. Empty at a sound end.
[[nodiscard]] const std::string& captureReaderFault(const CaptureReader& reader);

// How far the file was read, in its own bytes, compressed ones where it is compressed.
[[nodiscard]] uint64_t captureReaderBytesRead(const CaptureReader& reader);

// The smallest limit that the head of a pcap file, or an interface so far, puts on frames; 0 for
// none. Frames may have been cut there.
[[nodiscard]] uint32_t captureReaderSnapshotBytes(const CaptureReader& reader);
