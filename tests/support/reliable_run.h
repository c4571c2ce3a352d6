// Messages for the reliable layer, and what a send buffer makes of them.

#pragma once

#include <string>
#include <vector>

#include "lib/containers/entry_ring.h"
#include "lib/transport/reliable/send_buffer.h"
#include "tests/support/stream_run.h"
#include "tests/support/test.h"

// Messages of such sizes, each with bytes of its own; `together` in one buffer, one behind the
// other, else each in a buffer that ends with it.
struct GivenMessages : NoCopy {
    std::vector<pelmoMsg*> all;
    std::string bytes;

    explicit GivenMessages(const std::vector<uint32_t>& sizes,
                           bool together = false,
                           uint32_t seed = 0) {
        for (const uint32_t size : sizes)
            bytes += streamUnit(size, static_cast<char>('a' + seed++ % 26));
        all.resize(sizes.size());
        Buffer* buffer = together ? fromBytes(0, bytes.size()) : nullptr;
        uint32_t at = 0;
        for (size_t i = 0; i < sizes.size(); at += sizes[i++]) {
            if (!together) buffer = fromBytes(at, sizes[i]);
            (void)msgCreateOverBuffer(&all[i], buffer, together ? at : 0);
            if (!together) bufferRelease(buffer);
        }
        if (together) bufferRelease(buffer);
    }
    ~GivenMessages() {
        for (pelmoMsg* const message : all)
            msgRelease(message);
    }

    Buffer* fromBytes(size_t at, size_t size) const {
        Buffer* const buffer = bufferCreate(static_cast<uint32_t>(size));
        std::memcpy(buffer->data, bytes.data() + at, size);
        return buffer;
    }
};

inline std::string payloadOf(const OutPacket* packet) {
    if (packet->buffer == nullptr) return {};
    return {reinterpret_cast<const char*>(packet->buffer->data) + packet->offset, packet->length};
}

struct HeldSendBuffer : SendBuffer {
    HeldSendBuffer() : SendBuffer{} {}
    ~HeldSendBuffer() { sendBufferClear(this); }
    HeldSendBuffer(const HeldSendBuffer&) = delete;
    HeldSendBuffer& operator=(const HeldSendBuffer&) = delete;

    [[nodiscard]] std::vector<const OutPacket*> list() const {
        std::vector<const OutPacket*> all;
        for (uint32_t i = 0; packets != nullptr && i < packets->count; ++i) {
            all.push_back(
                static_cast<const OutPacket*>(packets->slots[EntryRing_Slot(packets, i)]));
        }
        return all;
    }

    // "700 1412@0/1433 | 5": two that wait, one that is delayed; "#7:700" for one that is sent,
    // with the number of its first fragment behind it.
    [[nodiscard]] std::string shape() const {
        std::string text;
        const std::vector<const OutPacket*> all = list();
        for (size_t i = 0; i < all.size(); ++i) {
            const OutPacket& packet = *all[i];
            if (i != 0) text += ' ';
            if (i == all.size() - delayed) text += "| ";
            if (i < sent) text += '#' + std::to_string(packet.header.seq) + ':';
            text += std::to_string(packet.length);
            if (!packet.isFragment) continue;
            text += '@' + std::to_string(packet.fragment.offset) + '/';
            text += std::to_string(packet.fragment.totalSize);
            if (i < sent) text += '^' + std::to_string(packet.fragment.firstSeq);
        }
        return text;
    }

    [[nodiscard]] std::string payload() const {
        std::string bytes;
        for (const OutPacket* const packet : list())
            bytes += payloadOf(packet);
        return bytes;
    }
};
