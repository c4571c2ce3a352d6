#include "lib/transport/reliable/reassembly.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/base/bytes.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_internal.h"
#include "lib/msg/wire.h"

// A packet of whole messages, or a message of fragments.
struct ReassemblyEntry {
    Buffer* data;
    uint32_t size;       // of packet or message
    bool isWhole;        // a packet
    uint64_t firstSeq;   // of the message
    uint64_t nextSeq;    // of the first fragment that `next` hasn't passed
    uint64_t behindSeq;  // after the last one
};

namespace {

constexpr uint32_t kListRoom = 25;

// Something came under the number and was given up.
constinit ReassemblyEntry droppedMark = {};
ReassemblyEntry* const kDropped = &droppedMark;

ReassemblyEntry*& placeOf(Reassembly* reassembly, uint64_t seq) {
    return reassembly->places[seq % kReceiveWindow];
}

void tellLoss(ReassemblyResult* result, uint32_t bytes) {
    result->isLost = true;
    result->lostBytes += std::min(bytes, UINT32_MAX - result->lostBytes);
}

// Entries

void charge(Reassembly* reassembly, uint32_t bytes) {
    reassembly->bytes += bytes;
    reassembly->share->bytes += bytes;
}

void freeEntry(Reassembly* reassembly, ReassemblyEntry* entry) {
    reassembly->bytes -= entry->data->size;
    reassembly->share->bytes -= entry->data->size;
    bufferRelease(entry->data);
    std::free(entry);
}

ReassemblyBound boundAgainst(const Reassembly* reassembly, uint64_t bytes) {
    const ReassemblyShare* const share = reassembly->share;
    if (bytes > kMostReassemblyPeerBytes - reassembly->bytes) return ReassemblyBound::kPeer;
    if (share->bytes > share->most || bytes > share->most - share->bytes) {
        return ReassemblyBound::kEndpoint;
    }
    return ReassemblyBound::kNone;
}

// Null when memory ran out or a bound is reached; `result` says which.
ReassemblyEntry* makeEntry(Reassembly* reassembly, uint32_t bytes, ReassemblyResult* result) {
    const ReassemblyBound bound = boundAgainst(reassembly, std::max(bytes, kBufferLeastBytes));
    if (bound != ReassemblyBound::kNone) {
        result->bound = bound;
        return nullptr;
    }
    auto* const entry = static_cast<ReassemblyEntry*>(std::calloc(1, sizeof(ReassemblyEntry)));
    if (entry == nullptr) return nullptr;
    entry->data = bufferCreate(bytes);
    if (entry->data == nullptr) {
        std::free(entry);
        return nullptr;
    }
    charge(reassembly, entry->data->size);
    return entry;
}

void noteAbandoned(Reassembly* reassembly, uint64_t firstSeq) {
    const uint64_t place = firstSeq - reassembly->next;
    if (place < kReceiveWindow) reassembly->abandoned |= 1u << place;
}

// Nothing of the message stays but that its fragments came.
void abandon(Reassembly* reassembly, ReassemblyEntry* message, ReassemblyResult* result) {
    tellLoss(result, message->size);
    for (ReassemblyEntry*& place : reassembly->places) {
        if (place == message) place = kDropped;
    }
    if (reassembly->current == message) reassembly->current = nullptr;
    noteAbandoned(reassembly, message->firstSeq);
    freeEntry(reassembly, message);
}

// Delivery

// False also for what is no message, such as one shorter than its head. A list has room for the one
// message that fills its packet, or for some.
bool addMessage(Buffer* data, uint32_t at, bool isOnly, ReassemblyResult* result) {
    pelmoMsg* message = nullptr;
    if (msgCreateOverBuffer(&message, data, at) != kStatusSuccess) return false;
    if (result->messages == nullptr) result->messages = dpaCreate(isOnly ? 1 : kListRoom);
    if (result->messages != nullptr && dpaAppend(result->messages, message)) return true;
    msgRelease(message);
    return false;
}

// Messages share the buffer. `result` gets those before a fault, and the loss of the rest.
void split(Buffer* data, uint32_t size, ReassemblyResult* result) {
    uint32_t at = 0;
    while (size - at >= kMessageHeadBytes) {
        const uint32_t length = loadBe32At(data->data + at);
        if (length == 0) return;
        const bool fits = length <= size - at;
        if (!fits || !addMessage(data, at, length == size, result)) {
            return tellLoss(result, size - at);
        }
        at += length;
    }
}

void deliverEntry(Reassembly* reassembly, ReassemblyEntry* entry, ReassemblyResult* result) {
    split(entry->data, entry->size, result);
    freeEntry(reassembly, entry);
}

void deliverPayload(std::span<const uint8_t> payload, ReassemblyResult* result) {
    const auto size = static_cast<uint32_t>(payload.size());
    Buffer* const data = bufferCreate(size);
    if (data == nullptr) return tellLoss(result, size);
    std::memcpy(data->data, payload.data(), size);
    split(data, size, result);
    bufferRelease(data);
}

// A fragment's number has come up.
void passFragment(Reassembly* reassembly,
                  ReassemblyEntry* message,
                  uint64_t seq,
                  ReassemblyResult* result) {
    if (message->nextSeq != seq) return abandon(reassembly, message, result);
    ++message->nextSeq;
    reassembly->current = message;
    if (message->nextSeq != message->behindSeq) return;
    reassembly->current = nullptr;
    deliverEntry(reassembly, message, result);
}

// `next` moves over a number. A message that was under way and isn't what came there lacks it for
// good.
void passNumber(Reassembly* reassembly, const ReassemblyEntry* came, ReassemblyResult* result) {
    ReassemblyEntry* const current = reassembly->current;
    if (current != nullptr && current != came) abandon(reassembly, current, result);
    ++reassembly->next;
    reassembly->abandoned >>= 1;
}

void walk(Reassembly* reassembly, ReassemblyResult* result) {
    while (reassembly->ahead != 0) {
        const uint64_t seq = reassembly->next;
        ReassemblyEntry* const came = std::exchange(placeOf(reassembly, seq), nullptr);
        if (came == nullptr) return;
        --reassembly->ahead;
        passNumber(reassembly, came, result);
        if (came == kDropped) continue;
        if (came->isWhole) {
            deliverEntry(reassembly, came, result);
        } else {
            passFragment(reassembly, came, seq, result);
        }
    }
}

// Whole packets

ReassemblyEntry* keepWhole(Reassembly* reassembly,
                           std::span<const uint8_t> payload,
                           ReassemblyResult* result) {
    const auto size = static_cast<uint32_t>(payload.size());
    ReassemblyEntry* const entry = makeEntry(reassembly, size, result);
    if (entry == nullptr) {
        tellLoss(result, size);
        return kDropped;
    }
    entry->size = size;
    entry->isWhole = true;
    std::memcpy(entry->data->data, payload.data(), size);
    return entry;
}

// Fragments

// Of a message that has more than one, in the place that its number gives it.
bool isSound(const FragmentOption& fragment, uint64_t seq, size_t payloadBytes) {
    if (fragment.totalSize <= kMostBlockBytes || seq < fragment.firstSeq) return false;
    if (fragment.offset >= fragment.totalSize) return false;
    if (fragment.offset % kFragmentPayloadBytes != 0) return false;
    if (fragment.offset / kFragmentPayloadBytes != seq - fragment.firstSeq) return false;
    return payloadBytes == std::min(kFragmentPayloadBytes, fragment.totalSize - fragment.offset);
}

ReassemblyEntry* findMessage(const Reassembly* reassembly, uint64_t firstSeq) {
    ReassemblyEntry* const current = reassembly->current;
    if (current != nullptr && current->firstSeq == firstSeq) return current;
    if (reassembly->ahead == 0) return nullptr;
    for (ReassemblyEntry* const place : reassembly->places) {
        if (place == nullptr || place == kDropped || place->isWhole) continue;
        if (place->firstSeq == firstSeq) return place;
    }
    return nullptr;
}

// A message that begins below `next` and isn't there was delivered, or abandoned.
bool isOver(const Reassembly* reassembly, uint64_t firstSeq) {
    if (firstSeq < reassembly->next) return true;
    const uint64_t place = firstSeq - reassembly->next;
    return place < kReceiveWindow && (reassembly->abandoned >> place & 1) != 0;
}

ReassemblyEntry* makeMessage(Reassembly* reassembly,
                             const FragmentOption& fragment,
                             ReassemblyResult* result) {
    if (fragment.totalSize > kMostReassemblyPeerBytes) {
        result->bound = ReassemblyBound::kPeer;
        return nullptr;
    }
    const uint32_t bytes = std::min(fragment.offset + kFragmentPayloadBytes, fragment.totalSize);
    ReassemblyEntry* const message = makeEntry(reassembly, bytes, result);
    if (message == nullptr) return nullptr;
    message->size = fragment.totalSize;
    message->firstSeq = message->nextSeq = fragment.firstSeq;
    message->behindSeq = fragment.firstSeq + (fragment.totalSize - 1) / kFragmentPayloadBytes + 1;
    return message;
}

// Twice the bytes where the bounds allow it, else as many as are needed.
bool makeRoom(Reassembly* reassembly,
              ReassemblyEntry* message,
              uint32_t end,
              ReassemblyResult* result) {
    const uint32_t before = message->data->size;
    if (end <= before) return true;
    uint32_t wanted = std::max(end, before > message->size / 2 ? message->size : before * 2);
    if (boundAgainst(reassembly, wanted - before) != ReassemblyBound::kNone) wanted = end;
    const ReassemblyBound bound = boundAgainst(reassembly, wanted - before);
    if (bound != ReassemblyBound::kNone) {
        result->bound = bound;
        return false;
    }
    const auto more = static_cast<int32_t>(wanted - before);
    if (bufferGrow(message->data, more) != kStatusSuccess) return false;
    charge(reassembly, wanted - before);
    return true;
}

// What the place of the fragment holds: its message, or kDropped.
ReassemblyEntry* takeFragment(Reassembly* reassembly,
                              const Packet* packet,
                              ReassemblyResult* result) {
    const FragmentOption& fragment = packet->fragment;
    const std::span<const uint8_t> payload = packet->payload;
    const bool sound = isSound(fragment, packet->header.seq, payload.size());
    ReassemblyEntry* message = findMessage(reassembly, fragment.firstSeq);
    if (message == nullptr) {
        if (isOver(reassembly, fragment.firstSeq)) return kDropped;
        if (sound) message = makeMessage(reassembly, fragment, result);
        if (message == nullptr) {
            tellLoss(result, fragment.totalSize);
            noteAbandoned(reassembly, fragment.firstSeq);
            return kDropped;
        }
    }
    const auto end = static_cast<uint32_t>(fragment.offset + payload.size());
    const bool fits = sound && message->size == fragment.totalSize;
    if (!fits || !makeRoom(reassembly, message, end, result)) {
        abandon(reassembly, message, result);
        return kDropped;
    }
    std::memcpy(message->data->data + fragment.offset, payload.data(), payload.size());
    return message;
}

void takeInOrder(Reassembly* reassembly, const Packet* packet, ReassemblyResult* result) {
    if (!packet->isFragment) {
        passNumber(reassembly, nullptr, result);
        deliverPayload(packet->payload, result);
    } else {
        ReassemblyEntry* const came = takeFragment(reassembly, packet, result);
        passNumber(reassembly, came, result);
        if (came != kDropped) passFragment(reassembly, came, packet->header.seq, result);
    }
    walk(reassembly, result);
}

void takeAhead(Reassembly* reassembly, const Packet* packet, ReassemblyResult* result) {
    const uint64_t seq = packet->header.seq;
    if (seq <= reassembly->next || seq - reassembly->next >= kReceiveWindow) return;
    if (placeOf(reassembly, seq) != nullptr) return;
    ReassemblyEntry* const came = packet->isFragment
                                      ? takeFragment(reassembly, packet, result)
                                      : keepWhole(reassembly, packet->payload, result);
    placeOf(reassembly, seq) = came;
    ++reassembly->ahead;
}

// What is held for other numbers goes.
void beginAt(Reassembly* reassembly, uint64_t number) {
    if (reassembly->next == number) return;
    reassemblyFree(reassembly);
    reassembly->next = number;
}

}  // namespace

void reassemblyInit(Reassembly* reassembly, ReassemblyShare* share) {
    *reassembly = {};
    reassembly->share = share;
}

void reassemblyFree(Reassembly* reassembly) {
    ReassemblyResult ignored = {};
    if (reassembly->current != nullptr) abandon(reassembly, reassembly->current, &ignored);
    for (ReassemblyEntry* const& place : reassembly->places) {
        if (place == nullptr || place == kDropped) continue;
        abandon(reassembly, place, &ignored);
    }
    reassemblyInit(reassembly, reassembly->share);
}

bool reassemblyIsEmpty(const Reassembly* reassembly) {
    return reassembly->bytes == 0;
}

void reassemblyTake(Reassembly* reassembly,
                    const ReassemblyInput& input,
                    ReassemblyResult* result) {
    *result = {};
    result->next = input.rcvNxt;
    if (input.packet->payload.empty()) return;
    beginAt(reassembly, input.inOrder ? input.packet->header.seq : input.rcvNxt);
    if (input.inOrder) {
        takeInOrder(reassembly, input.packet, result);
    } else {
        takeAhead(reassembly, input.packet, result);
    }
    result->next = std::max(reassembly->next, input.rcvNxt);
}

void reassemblyPass(Reassembly* reassembly, uint64_t number, ReassemblyResult* result) {
    *result = {};
    beginAt(reassembly, number);
    passNumber(reassembly, nullptr, result);
    walk(reassembly, result);
    result->next = reassembly->next;
}
