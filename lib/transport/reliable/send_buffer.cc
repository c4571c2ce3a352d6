#include "lib/transport/reliable/send_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/entry_ring.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/pool.h"

namespace {

constexpr uint32_t kPacketsPerBlock = 1024;
constexpr uint32_t kPacketsAtATime = 64;
constexpr uint32_t kFirstRingSlots = 8;
constexpr uint32_t kKeptRingSlots = 4096;  // an empty ring with more goes: a full backlog's stays

ChunkPool* packetPool = nullptr;

OutPacket* takePacket() {
    if (packetPool == nullptr) return static_cast<OutPacket*>(std::calloc(1, sizeof(OutPacket)));
    return static_cast<OutPacket*>(poolTake(packetPool, __FILE__, __LINE__));
}

void givePacket(OutPacket* packet) {
    bufferRelease(packet->buffer);
    if (packet->poolOwner == nullptr) {
        std::free(packet);
    } else {
        poolGive(packetPool, packet, __FILE__, __LINE__);
    }
}

// All but the pool's word.
void fillPacket(OutPacket* to, const OutPacket& from) {
    void* const owner = to->poolOwner;
    *to = from;
    to->poolOwner = owner;
}

uint32_t countOf(const SendBuffer* buffer) {
    return buffer->packets != nullptr ? buffer->packets->count : 0;
}

OutPacket* packetAt(const SendBuffer* buffer, uint32_t place) {
    return static_cast<OutPacket*>(buffer->packets->slots[EntryRing_Slot(buffer->packets, place)]);
}

// Null when memory ran out. The reference of `from` to its buffer is the caller's until then.
OutPacket* pushPacket(SendBuffer* buffer, const OutPacket& from) {
    if (buffer->packets == nullptr) buffer->packets = EntryRing_Create(kFirstRingSlots);
    if (buffer->packets == nullptr) return nullptr;
    OutPacket* const packet = takePacket();
    if (packet == nullptr) return nullptr;
    fillPacket(packet, from);
    if (EntryRing_PushBack(buffer->packets, packet)) return packet;
    packet->buffer = nullptr;
    givePacket(packet);
    return nullptr;
}

void dropFirstSent(SendBuffer* buffer) {
    givePacket(static_cast<OutPacket*>(EntryRing_PopFront(buffer->packets)));
    --buffer->sent;
}

// Packing

// Messages that lie one after the other, with a reference to their buffer; empty without one.
struct Block {
    Buffer* buffer;
    uint32_t offset;
    uint32_t length;
    bool takesMore;  // as OutPacket has it
};

// The waiting packet that the first messages join is changed when all has gone well.
struct Packing {
    SendBuffer* to;
    Block block;           // under way
    OutPacket* joined;     // null for none
    Block joinedBlock;     // what it will hold, once that is known
    bool blockIsOfJoined;  // `block` is to become `joinedBlock`
};

// Takes over the block's reference.
bool pushWhole(SendBuffer* to, const Block& block) {
    const OutPacket* const packet = pushPacket(to, {.header = {},
                                                    .isFragment = false,
                                                    .takesMore = block.takesMore,
                                                    .fragment = {},
                                                    .buffer = block.buffer,
                                                    .offset = block.offset,
                                                    .length = block.length,
                                                    .poolOwner = nullptr});
    if (packet == nullptr) bufferRelease(block.buffer);
    return packet != nullptr;
}

bool pushFragment(SendBuffer* to, const Block& block, uint32_t at) {
    const FragmentOption fragment = {.totalSize = block.length, .firstSeq = 0, .offset = at};
    const OutPacket* const packet =
        pushPacket(to, {.header = {},
                        .isFragment = true,
                        .takesMore = false,
                        .fragment = fragment,
                        .buffer = block.buffer,
                        .offset = block.offset + at,
                        .length = std::min(kFragmentPayloadBytes, block.length - at),
                        .poolOwner = nullptr});
    if (packet != nullptr) bufferRetain(block.buffer);
    return packet != nullptr;
}

// Likewise.
bool pushFragments(SendBuffer* to, const Block& block) {
    uint32_t at = 0;
    while (at < block.length && pushFragment(to, block, at))
        at += kFragmentPayloadBytes;
    bufferRelease(block.buffer);
    return at >= block.length;
}

bool closeBlock(Packing* packing) {
    const Block block = std::exchange(packing->block, {});
    if (std::exchange(packing->blockIsOfJoined, false)) {
        packing->joinedBlock = block;
        return true;
    }
    const bool isWhole = block.length <= kMostBlockBytes;
    return isWhole ? pushWhole(packing->to, block) : pushFragments(packing->to, block);
}

// The block moves to a buffer of its own. One that it shares is never written: messages of the
// application may lie in it, also after the block.
bool giveOwnBuffer(Block* block) {
    Buffer* const own = bufferClone(block->buffer, block->offset, kMostBlockBytes, block->length);
    if (own == nullptr) return false;
    bufferRelease(std::exchange(block->buffer, own));
    block->offset = 0;
    block->takesMore = true;
    return true;
}

bool addMessage(Packing* packing, pelmoMsg* message) {
    Buffer* const buffer = msgFlushBuffer(message);
    const uint32_t offset = message->base;
    const uint32_t length = message->length;
    Block* const block = &packing->block;
    const bool isFull = block->length + length > kMostBlockBytes;
    if (block->buffer != nullptr && isFull && !closeBlock(packing)) return false;
    if (block->buffer == nullptr) {
        bufferRetain(buffer);
        *block = {.buffer = buffer, .offset = offset, .length = length, .takesMore = false};
        return true;
    }
    const uint32_t end = block->offset + block->length;
    if (block->buffer != buffer || end != offset) {
        if (!block->takesMore && !giveOwnBuffer(block)) return false;
        uint8_t* const to = block->buffer->data + block->offset + block->length;
        std::memcpy(to, buffer->data + offset, length);
    }
    block->length += length;
    return true;
}

// The last packet of those that still take messages, if it has room.
void findJoined(Packing* packing, uint32_t length, bool delaySmall) {
    const SendBuffer* const to = packing->to;
    const uint32_t takers = delaySmall ? to->delayed : countOf(to) - to->sent;
    if (takers == 0) return;
    OutPacket* const last = packetAt(to, countOf(to) - 1);
    if (last->isFragment || last->length + length > kMostBlockBytes) return;
    bufferRetain(last->buffer);
    packing->joined = last;
    packing->block = {.buffer = last->buffer,
                      .offset = last->offset,
                      .length = last->length,
                      .takesMore = last->takesMore};
    packing->blockIsOfJoined = true;
}

bool packAll(Packing* packing, std::span<pelmoMsg* const> messages) {
    for (pelmoMsg* const message : messages) {
        if (!addMessage(packing, message)) return false;
    }
    return closeBlock(packing);
}

void fillJoined(Packing* packing) {
    OutPacket* const joined = packing->joined;
    if (joined == nullptr) return;
    const Block& block = packing->joinedBlock;
    bufferRelease(std::exchange(joined->buffer, block.buffer));
    joined->offset = block.offset;
    joined->length = block.length;
    joined->takesMore = block.takesMore;
}

void undo(Packing* packing, uint32_t countBefore) {
    while (countOf(packing->to) > countBefore)
        givePacket(static_cast<OutPacket*>(EntryRing_PopBack(packing->to->packets)));
    bufferRelease(packing->block.buffer);
    bufferRelease(packing->joinedBlock.buffer);
}

// One message that the last waiting packet takes as it is: no memory is needed. False where it
// isn't so simple.
bool joinSimply(SendBuffer* buffer, std::span<pelmoMsg* const> messages, bool delaySmall) {
    if (messages.size() != 1 || delaySmall || buffer->delayed != 0) return false;
    if (sendBufferWaiting(buffer) == 0) return false;
    OutPacket* const last = packetAt(buffer, countOf(buffer) - 1);
    pelmoMsg* const message = messages.front();
    const uint32_t length = message->length;
    if (!last->takesMore || length > kMostBlockBytes - last->length) return false;
    const uint8_t* const from = msgFlushBuffer(message)->data + message->base;
    std::memcpy(last->buffer->data + last->offset + last->length, from, length);
    last->length += length;
    return true;
}

// The packets from `firstPlace` on, up to the first one that doesn't wait for more.
uint32_t countDelayed(const SendBuffer* buffer, uint32_t firstPlace) {
    uint32_t delayed = 0;
    for (uint32_t place = countOf(buffer); place > firstPlace; --place, ++delayed) {
        const OutPacket* const packet = packetAt(buffer, place - 1);
        if (packet->isFragment || packet->length >= kSmallPacketBytes) break;
    }
    return delayed;
}

pelmoStatus checkMessages(std::span<pelmoMsg* const> messages) {
    for (const pelmoMsg* const message : messages) {
        if (!msgIsValid(message)) return kStatusInvalidMessage;
        if (message->length > kMostReliableMessageBytes) return kStatusInvalidSize;
    }
    return kStatusSuccess;
}

bool isLastFragment(const OutPacket* packet) {
    return packet->fragment.offset + packet->length >= packet->fragment.totalSize;
}

// Of a packet of whole messages, each of which begins with its size.
uint64_t countMessages(const OutPacket* packet) {
    uint64_t messages = 0;
    const uint8_t* const payload = packet->buffer->data + packet->offset;
    for (uint32_t at = 0; at < packet->length; ++messages) {
        const uint32_t size = loadBe32At(payload + at);
        if (size == 0) break;
        at += size;
    }
    return messages;
}

}  // namespace

pelmoStatus outPacketPoolCreate() {
    if (packetPool == nullptr) {
        packetPool = poolCreate(kPacketsPerBlock, sizeof(OutPacket), offsetof(OutPacket, poolOwner),
                                nullptr, nullptr, 0, kPacketsAtATime, __FILE__, __LINE__);
    }
    return packetPool != nullptr ? kStatusSuccess : kStatusNoMemory;
}

void sendBufferClear(SendBuffer* buffer) {
    while (countOf(buffer) != 0)
        givePacket(static_cast<OutPacket*>(EntryRing_PopFront(buffer->packets)));
    EntryRing_Destroy(buffer->packets);
    *buffer = {};
}

pelmoStatus sendBufferAdd(SendBuffer* buffer,
                          std::span<pelmoMsg* const> messages,
                          bool delaySmall) {
    if (messages.empty()) return kStatusSuccess;
    const pelmoStatus status = checkMessages(messages);
    if (status != kStatusSuccess) return status;

    if (joinSimply(buffer, messages, delaySmall)) return kStatusSuccess;
    const uint32_t countBefore = countOf(buffer);
    Packing packing = {};
    packing.to = buffer;
    findJoined(&packing, messages.front()->length, delaySmall);
    if (!packAll(&packing, messages)) {
        undo(&packing, countBefore);
        return kStatusNoMemory;
    }
    fillJoined(&packing);
    const uint32_t stillDelayed = packing.joined != nullptr ? buffer->delayed : 0;
    buffer->delayed = delaySmall ? countDelayed(buffer, countBefore - stillDelayed) : 0;
    return kStatusSuccess;
}

void sendBufferEndDelay(SendBuffer* buffer) {
    buffer->delayed = 0;
}

uint32_t sendBufferWaiting(const SendBuffer* buffer) {
    return countOf(buffer) - buffer->sent - buffer->delayed;
}

bool sendBufferIsFull(const SendBuffer* buffer) {
    return uint64_t{sendBufferWaiting(buffer)} * kBacklogPacketBytes >= kSendBacklogBytes;
}

bool sendBufferIsEmpty(const SendBuffer* buffer) {
    return countOf(buffer) == 0;
}

OutPacket* sendBufferNext(SendBuffer* buffer, uint64_t seq) {
    if (sendBufferWaiting(buffer) == 0) return nullptr;
    assert(buffer->sent == 0 || seq == packetAt(buffer, 0)->header.seq + buffer->sent);
    OutPacket* const packet = packetAt(buffer, buffer->sent++);
    packet->header.seq = seq;
    packet->fragment.firstSeq = seq - packet->fragment.offset / kFragmentPayloadBytes;
    return packet;
}

OutPacket* sendBufferFind(const SendBuffer* buffer, uint64_t seq) {
    if (buffer->sent == 0) return nullptr;
    const uint64_t first = packetAt(buffer, 0)->header.seq;
    if (seq < first || seq - first >= buffer->sent) return nullptr;
    return packetAt(buffer, static_cast<uint32_t>(seq - first));
}

// Below the last fragment of one message ends another, or what is no fragment: the last
// acknowledged packet alone says how many are freed, however many are kept.
void sendBufferAcknowledge(SendBuffer* buffer, uint64_t ack) {
    if (buffer->sent == 0) return;
    const uint64_t first = packetAt(buffer, 0)->header.seq;
    if (ack <= first) return;
    auto gone = static_cast<uint32_t>(std::min<uint64_t>(ack - first, buffer->sent));
    const OutPacket* const last = packetAt(buffer, gone - 1);
    if (last->isFragment && !isLastFragment(last)) {
        gone -= std::min(gone, last->fragment.offset / kFragmentPayloadBytes + 1);
    }
    while (gone-- > 0)
        dropFirstSent(buffer);
    if (countOf(buffer) == 0 && buffer->packets->capacity > kKeptRingSlots) sendBufferClear(buffer);
}

uint64_t sendBufferRewind(SendBuffer* buffer) {
    const uint64_t lowest = buffer->sent != 0 ? packetAt(buffer, 0)->header.seq : 0;
    for (uint32_t place = 0; place < buffer->sent; ++place) {
        OutPacket* const packet = packetAt(buffer, place);
        packet->header = {};
        packet->fragment.firstSeq = 0;
    }
    buffer->sent = buffer->delayed = 0;
    return lowest;
}

uint64_t sendBufferPayloadBytes(const SendBuffer* buffer) {
    uint64_t bytes = 0;
    for (uint32_t place = 0; place < countOf(buffer); ++place)
        bytes += packetAt(buffer, place)->length;
    return bytes;
}

uint64_t sendBufferMessages(const SendBuffer* buffer) {
    uint64_t messages = 0;
    for (uint32_t place = 0; place < countOf(buffer); ++place) {
        const OutPacket* const packet = packetAt(buffer, place);
        messages += packet->isFragment ? isLastFragment(packet) : countMessages(packet);
    }
    return messages;
}
