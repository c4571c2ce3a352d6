// The stream cutter: takes the bytes of a connection as they come, in whatever pieces, and gives
// the messages in them, which lie over the read buffer without a copy.
//
//     unit:    0 size 4    | 4 magic 4  | ...
//     size 8               | magic      | keep-alive, skipped
//     size 9 and above     | magic      | a message
//     size below 8         | magic      | kBadSize; above the most, too
//     0                    | 0          | the peer's close notice
//     anything else                     | kBadMagic
//
// How the stream is split into reads never changes what comes out. A head that claims many bytes
// takes memory only as its bytes come: the buffer at most doubles what has arrived.
//
// A read that fills no more than a quarter of its buffer is copied to one of its own size, so that
// a few small messages don't keep a large buffer alive.
//
// Ownership: the cutter owns its buffer; each message has a reference of its own to the buffer that
// it lies in, and belongs to the caller that takes the batch.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Buffer;
struct Dpa;

inline constexpr uint32_t kReadBufferBytes = 0x20000;  // of a fresh buffer
inline constexpr uint32_t kMostReadBytes = 0x28000;    // of one read

enum class CutVerdict : uint32_t {
    kGoOn,
    kCloseNotice,  // the peer is closing
    kBadMagic,
    kBadSize,
    kNoMemory,
};

struct StreamCutter {
    // Constant after cutterInit.
    uint32_t readBufferBytes;   // size of a fresh buffer
    uint32_t mostMessageBytes;  // a longer message ends the stream as kBadSize

    // Likewise, for the first one. The owner may lower it before anything is read.
    uint32_t mostFirstBytes;

    // The first bytes of a unit that isn't whole yet
    Buffer* buffer;  // null while nothing is under way
    uint32_t start;  // where they begin in `buffer`
    uint32_t count;

    // Totals
    uint64_t messages;
    uint64_t bytes;     // of these messages
    uint32_t partials;  // reads that ended within a unit while the buffer had room
};

// `readBufferBytes` is at most kMostReadBytes and at least the size of a head.
void cutterInit(StreamCutter* cutter, uint32_t readBufferBytes, uint32_t mostMessageBytes);
void cutterFree(StreamCutter* cutter);

// Where the next bytes of the stream belong, at most kMostReadBytes; empty when memory runs out.
// What the cutter has of the stream stays as it is until cutterTake.
[[nodiscard]] std::span<uint8_t> cutterRoom(StreamCutter* cutter);

// The same, for one unit and nothing after it.
[[nodiscard]] std::span<uint8_t> cutterRoomForOne(StreamCutter* cutter);

// So many bytes were written to the room; 0 gives room back that isn't needed now. Appends the
// messages that are whole to `batch`, also those before a fault; after any verdict but kGoOn the
// cutter has let go of its buffer and can be used no further.
[[nodiscard]] CutVerdict cutterTake(StreamCutter* cutter, uint32_t count, Dpa* batch);
