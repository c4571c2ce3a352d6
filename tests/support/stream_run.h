// A stream through the cutter, split as the caller likes.

#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/ipq/stream_cutter.h"

struct CutStream {
    std::vector<std::string> messages;
    CutVerdict verdict = CutVerdict::kGoOn;
    uint32_t rest = 0;      // bytes of a unit that isn't whole
    uint64_t mostOver = 0;  // of the buffer, beyond twice what had come or a first buffer
    bool heldRoom = false;  // a buffer stayed while nothing was under way

    bool operator==(const CutStream& other) const {
        return messages == other.messages && verdict == other.verdict && rest == other.rest;
    }
};

inline std::string streamUnit(uint32_t size, char fill, uint32_t magic = kMessageMagic) {
    std::string unit(std::max(size, kMessageHeadBytes), fill);
    storeBe32At(reinterpret_cast<uint8_t*>(unit.data()), size);
    storeBe32At(reinterpret_cast<uint8_t*>(unit.data()) + 4, magic);
    return unit;
}

// Moves the messages of a batch out of it.
inline void takeBatch(Dpa* batch, std::vector<std::string>& out) {
    for (uint32_t i = 0; i < batch->count; ++i) {
        auto* const message = static_cast<pelmoMsg*>(batch->items[i]);
        out.emplace_back(reinterpret_cast<const char*>(msgImage(message)), message->length);
        msgRelease(message);
    }
    batch->count = 0;
}

// `nextSplit()` gives the size of the next read, which the room may cut. Batches are kept for some
// reads, so that buffers are shared meanwhile.
template <typename NextSplit>
CutStream cutStream(std::string_view stream,
                    uint32_t readBufferBytes,
                    uint32_t mostMessageBytes,
                    bool oneUnitAtATime,
                    NextSplit nextSplit) {
    CutStream result;
    StreamCutter cutter;
    cutterInit(&cutter, readBufferBytes, mostMessageBytes);
    Dpa* const batch = dpaCreate(4);
    if (batch == nullptr) return result;
    for (uint32_t reads = 1; !stream.empty() && result.verdict == CutVerdict::kGoOn; ++reads) {
        const std::span<uint8_t> room =
            oneUnitAtATime ? cutterRoomForOne(&cutter) : cutterRoom(&cutter);
        if (room.empty()) break;
        const size_t bytes = std::min({size_t{nextSplit()}, room.size(), stream.size()});
        std::memcpy(room.data(), stream.data(), bytes);
        stream.remove_prefix(bytes);
        result.verdict = cutterTake(&cutter, static_cast<uint32_t>(bytes), batch);
        if (cutter.buffer != nullptr) {
            const uint64_t due = std::max<uint64_t>(2 * cutter.count, 2 * kMostReadBytes);
            result.mostOver =
                std::max(result.mostOver,
                         cutter.buffer->size - std::min<uint64_t>(cutter.buffer->size, due));
            result.heldRoom |= cutter.count == 0;
        }
        if (reads % 3 == 0) takeBatch(batch, result.messages);
    }
    takeBatch(batch, result.messages);
    result.rest = cutter.count;
    cutterFree(&cutter);
    dpaDestroy(batch);
    return result;
}
