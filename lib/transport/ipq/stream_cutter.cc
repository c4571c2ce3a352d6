#include "lib/transport/ipq/stream_cutter.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/wire.h"

namespace {

constexpr uint32_t kSmallReadShare = 4;   // of its buffer, a read at most: it is copied
constexpr uint32_t kSmallRestShare = 16;  // likewise, for what is left of one
constexpr uint32_t kOneUnitStepBytes = 0x8000;

void dropBuffer(StreamCutter* cutter) {
    bufferRelease(std::exchange(cutter->buffer, nullptr));
    cutter->start = cutter->count = 0;
}

// Size of the unit that is under way; that of a head while this isn't whole. Checked when the head
// was cut.
uint32_t unitBytes(const StreamCutter* cutter) {
    if (cutter->count < kMessageHeadBytes) return kMessageHeadBytes;
    return loadBe32At(cutter->buffer->data + cutter->start);
}

// Twice what has come, at least `leastBytes`, and never more than the unit.
uint32_t grownBytes(const StreamCutter* cutter, uint32_t leastBytes) {
    const uint64_t doubled = std::max(uint64_t{cutter->count} * 2, uint64_t{leastBytes});
    return static_cast<uint32_t>(std::min(doubled, uint64_t{unitBytes(cutter)}));
}

// A buffer for the rest of a read has room for a quarter more.
uint32_t restBufferBytes(const StreamCutter* cutter) {
    const uint32_t bytes = cutter->readBufferBytes;
    const uint32_t roomy = std::min(bytes + bytes / 4, kMostReadBytes);
    return unitBytes(cutter) <= roomy ? roomy : grownBytes(cutter, roomy);
}

void moveToFront(StreamCutter* cutter) {
    if (cutter->start == 0) return;
    uint8_t* const data = cutter->buffer->data;
    std::memmove(data, data + std::exchange(cutter->start, 0), cutter->count);
}

// Messages that lie in the buffer stay there: the bytes of the unit are copied to a new one.
bool enlarge(StreamCutter* cutter, uint32_t bytes) {
    Buffer* const before = cutter->buffer;
    if (!bufferIsShared(before)) {
        moveToFront(cutter);
        return bufferGrow(before, static_cast<int32_t>(bytes - before->size)) == kStatusSuccess;
    }
    Buffer* const made = bufferClone(before, cutter->start, bytes, cutter->count);
    if (made == nullptr) return false;
    cutter->buffer = made;
    cutter->start = 0;
    bufferRelease(before);
    return true;
}

bool makeFresh(StreamCutter* cutter, uint32_t bytes) {
    cutter->buffer = bufferCreate(bytes);
    return cutter->buffer != nullptr;
}

// Is it one to read on into?
bool isReadBuffer(const StreamCutter* cutter) {
    const Buffer* const buffer = cutter->buffer;
    return buffer->size >= cutter->readBufferBytes && cutter->count < buffer->size &&
           !bufferIsShared(buffer);
}

std::span<uint8_t> roomOf(const StreamCutter* cutter, uint32_t mostBytes) {
    const uint32_t used = cutter->start + cutter->count;
    return {cutter->buffer->data + used, std::min(cutter->buffer->size - used, mostBytes)};
}

// A walk over the bytes in hand.
struct Walk {
    const uint8_t* data;
    uint32_t at;
    uint32_t end;

    // Where messages come to lie, once there is one; `homeAt` is the walk's place of its first
    // byte.
    Buffer* home;
    uint32_t homeAt;
};

bool findHome(Walk* walk, Buffer* buffer, uint32_t count) {
    if (buffer->size / kSmallReadShare < count) {
        walk->home = buffer;
        bufferRetain(buffer);
        return true;
    }
    const uint32_t left = walk->end - walk->at;
    walk->home = bufferClone(buffer, walk->at, left, left);
    walk->homeAt = walk->at;
    return walk->home != nullptr;
}

bool addMessage(Walk* walk, StreamCutter* cutter, uint32_t size, Dpa* batch) {
    if (walk->home == nullptr && !findHome(walk, cutter->buffer, cutter->count)) return false;
    pelmoMsg* message = nullptr;
    const pelmoStatus status = msgCreateOverBuffer(&message, walk->home, walk->at - walk->homeAt);
    if (status != kStatusSuccess) return false;
    if (!dpaAppend(batch, message)) {
        msgRelease(message);
        return false;
    }
    ++cutter->messages;
    cutter->bytes += size;
    return true;
}

uint32_t mostBytesNext(const StreamCutter* cutter) {
    return cutter->messages == 0 ? cutter->mostFirstBytes : cutter->mostMessageBytes;
}

CutVerdict cut(StreamCutter* cutter, Walk* walk, Dpa* batch) {
    while (walk->end - walk->at >= kMessageHeadBytes) {
        const uint32_t size = loadBe32At(walk->data + walk->at);
        const uint32_t magic = loadBe32At(walk->data + walk->at + kMessageMagicOffset);
        if (magic != kMessageMagic) [[unlikely]] {
            return magic == 0 && size == 0 ? CutVerdict::kCloseNotice : CutVerdict::kBadMagic;
        }
        if (size < kMessageHeadBytes || size > mostBytesNext(cutter)) [[unlikely]] {
            return CutVerdict::kBadSize;
        }
        if (size > walk->end - walk->at) break;
        if (size > kMessageHeadBytes && !addMessage(walk, cutter, size, batch)) {
            return CutVerdict::kNoMemory;
        }
        walk->at += size;
    }
    return CutVerdict::kGoOn;
}

// The bytes of the unit that isn't whole stay where they are, until there is need for room. A few
// go to a buffer of their own, so that a connection that falls silent keeps no large one.
void keepRest(StreamCutter* cutter, uint32_t at, uint32_t count) {
    if (count == 0) return dropBuffer(cutter);
    cutter->start = at;
    cutter->count = count;
    if (count > cutter->buffer->size / kSmallRestShare) return;
    Buffer* const own = bufferClone(cutter->buffer, at, count, count);
    if (own == nullptr) return;
    bufferRelease(std::exchange(cutter->buffer, own));
    cutter->start = 0;
}

}  // namespace

void cutterInit(StreamCutter* cutter, uint32_t readBufferBytes, uint32_t mostMessageBytes) {
    assert(readBufferBytes >= kMessageHeadBytes && readBufferBytes <= kMostReadBytes);
    *cutter = {};
    cutter->readBufferBytes = readBufferBytes;
    cutter->mostMessageBytes = cutter->mostFirstBytes = mostMessageBytes;
}

void cutterFree(StreamCutter* cutter) {
    dropBuffer(cutter);
}

std::span<uint8_t> cutterRoom(StreamCutter* cutter) {
    if (cutter->buffer == nullptr) {
        if (!makeFresh(cutter, cutter->readBufferBytes)) return {};
    } else if (isReadBuffer(cutter)) {
        moveToFront(cutter);
    } else if (!enlarge(cutter, restBufferBytes(cutter))) {
        return {};
    }
    return roomOf(cutter, kMostReadBytes);
}

std::span<uint8_t> cutterRoomForOne(StreamCutter* cutter) {
    if (cutter->buffer == nullptr && !makeFresh(cutter, kMessageHeadBytes)) return {};
    if (!bufferIsShared(cutter->buffer)) moveToFront(cutter);
    const uint32_t wanted = grownBytes(cutter, kOneUnitStepBytes);
    const bool isTooSmall = cutter->buffer->size < wanted || bufferIsShared(cutter->buffer);
    if (isTooSmall && !enlarge(cutter, wanted)) return {};
    return roomOf(cutter, unitBytes(cutter) - cutter->count);
}

CutVerdict cutterTake(StreamCutter* cutter, uint32_t count, Dpa* batch) {
    if (cutter->buffer == nullptr) return CutVerdict::kGoOn;
    cutter->count += count;
    Walk walk = {.data = cutter->buffer->data,
                 .at = cutter->start,
                 .end = cutter->start + cutter->count,
                 .home = nullptr,
                 .homeAt = 0};
    const CutVerdict verdict = cut(cutter, &walk, batch);
    bufferRelease(walk.home);
    if (verdict != CutVerdict::kGoOn) {
        dropBuffer(cutter);
        return verdict;
    }
    const uint32_t rest = walk.end - walk.at;
    if (count != 0 && rest != 0 && walk.end < cutter->buffer->size) ++cutter->partials;
    keepRest(cutter, walk.at, rest);
    return verdict;
}
