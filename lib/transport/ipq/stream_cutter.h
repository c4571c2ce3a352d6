// The stream cutter: takes the bytes of a connection as they come, in whatever pieces, and gives
// the messages in them, which lie over the read buffer without a copy.
//
//     unit:    0 size 4    | 4 magic 4  | ...
//     size 8               | magic      | keep-alive, skipped
//     size 9 and above     | magic      | a message
//     size below 8         | magic      | kCutBadSize
//     0                    | 0          | the peer's close notice
//     anything else                     | kCutBadMagic
//
// How the stream is split into reads never changes what comes out. A head that claims many bytes
// takes memory only as its bytes come: the buffer grows with what has arrived.
//
// Ownership: the cutter owns its buffer; each message has a reference of its own to the buffer that
// it lies in, and belongs to whoever takes the batch.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/status.h"

struct Buffer;
struct Dpa;

enum class CutVerdict : uint32_t {
    kGoOn,
    kCloseNotice,  // the peer is closing
    kBadMagic,
    kBadSize,
    kNoMemory,
};

struct StreamCutter {
    Buffer* buffer;             // null while nothing is under way
    uint32_t count;             // bytes in `buffer`
    uint32_t readBufferBytes;   // size of a fresh buffer
    uint32_t mostMessageBytes;  // a longer one ends the stream as kBadSize

    // Totals
    uint64_t messages;
    uint64_t bytes;     // of these messages
    uint32_t partials;  // reads that ended within a unit while the buffer had room
};

void cutterInit(StreamCutter* cutter, uint32_t readBufferBytes, uint32_t mostMessageBytes);
void cutterFree(StreamCutter* cutter);

// Where the next bytes of the stream belong; empty when memory runs out. Nothing changes until
// cutterTake.
[[nodiscard]] std::span<uint8_t> cutterRoom(StreamCutter* cutter);

// So many bytes were written to the room. Appends the messages that are whole to `batch`, also
// those ahead of a fault; after any verdict but kGoOn the cutter has let go of its buffer and can
// be used no further.
[[nodiscard]] CutVerdict cutterTake(StreamCutter* cutter, uint32_t count, Dpa* batch);
