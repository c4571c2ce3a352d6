// The core of a reliable endpoint at one end of a wire, and at the other a peer that a test writes
// by hand, packet by packet. What the core does is text:
//
//     "ACK 1/3, FIN 2/3; LAST_ACK; 1 message"      kind seq/ack; state if it changed; output
//
// A peer is a port; its connection id is kPeerId and the port.
//
// Threads: one.

#pragma once

#include <map>
#include <span>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "lib/containers/dpa.h"
#include "lib/msg/message.h"
#include "lib/msg/message_internal.h"
#include "lib/transport/reliable/connection.h"
#include "lib/transport/reliable/endpoint_core.h"
#include "tests/support/test.h"

inline constexpr double kWireBegin = 1.7e9;
inline constexpr uint32_t kPeerId = 0x70000000;

// What the peer sends.
struct WirePacket {
    uint8_t flags;
    uint64_t seq;
    uint64_t ack;
    uint32_t messages = 0;
    uint64_t window = kReceiveWindow;
};

struct CoreWire : NoCopy {
    CoreWire() {
        const EndpointSink sink = {
            this, onSend, [](void*, void*) {}, [](void*, void*) {},
            [](void* closure) { return static_cast<CoreWire*>(closure)->lastDrawn += 7919; }};
        EXPECT_EQ(endpointInit(&core, sink), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_CreateEx(&message, 32), kStatusSuccess);
    }
    ~CoreWire() {
        endpointFree(&core);
        pelmoMsg_Destroy(message);
    }

    // The peer sends to the last id that the core sent.
    void take(const WirePacket& packet) {
        std::vector<uint8_t> payload;
        for (uint32_t i = 0; i < packet.messages; ++i) {
            const uint8_t* const image = msgImage(message);
            payload.insert(payload.end(), image, image + message->length);
        }
        const bool isFirst = (packet.flags & kFlagSyn) != 0 && packet.ack == 0;
        const bool isReset = (packet.flags & kFlagRst) != 0;
        takeRaw({.sourceId = isReset ? 0 : peerId(),
                 .destId = isFirst ? 0 : coreIds[port],
                 .seq = packet.seq,
                 .ack = packet.ack,
                 .flags = packet.flags,
                 .window = packet.window},
                nullptr, payload);
    }
    void takeRaw(const PacketHeader& header,
                 const FragmentOption* fragment,
                 const std::vector<uint8_t>& payload) {
        uint8_t head[kMostHeadBytes];
        std::vector<uint8_t> bytes(head, head + packetWriteHead(head, header, fragment));
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        endpointTakeDatagram(&core, now, address(), bytes, &out);
        keep();
    }

    pelmoStatus send(uint32_t messages = 1, bool delaySmall = false) {
        return sendAll(std::vector<pelmoMsg*>(messages, message), delaySmall);
    }
    pelmoStatus sendAll(const std::vector<pelmoMsg*>& list, bool delaySmall) {
        ReliableConnection* waits = nullptr;
        const pelmoStatus status =
            endpointSend(&core, now, address(), list, delaySmall, &waits, &out);
        keep();
        return status;
    }

    // The clock goes on, and all deadlines are served at their times. Resends are shown with the
    // seconds that have passed.
    void run(double seconds) {
        const double begin = now;
        while (endpointNextDeadline(&core) <= begin + seconds) {
            now = endpointNextDeadline(&core);
            elapsed = now - begin;
            if (!endpointTick(&core, now, &out)) std::abort();
            keep();
        }
        now = begin + seconds;
        elapsed = -1;
    }

    void closeBegin(bool flush) {
        endpointCloseBegin(&core, now, flush, &out);
        keep();
    }
    void closeEnd() {
        while (endpointCloseEnd(&core, now, &out))
            keep();
        keep();
    }

    // All that was done since the last call.
    std::string done() {
        std::string text = std::exchange(sent, "");
        const ConnectionState is = state();
        if (is != stateShown) add(text, "; ", nameOf(is));
        stateShown = is;
        if (received != 0) add(text, "; ", std::to_string(std::exchange(received, 0)) + " taken");
        if (!lost.empty()) add(text, "; ", std::exchange(lost, ""));
        return text;
    }

    [[nodiscard]] ConnectionState state() const {
        const ReliableConnection* const connection = connectionFind(&core, address());
        return connection != nullptr ? connection->state : kClosed;
    }
    [[nodiscard]] PeerAddress address() const { return {0x0100007f, port}; }
    [[nodiscard]] uint32_t peerId() const { return kPeerId + port + life * 0x10000; }

    static const char* nameOf(ConnectionState state) {
        constexpr const char* kNames[] = {"CLOSED",      "LISTEN",     "SYN_SENT",   "SYN_RECEIVED",
                                          "ESTABLISHED", "FIN_WAIT_1", "FIN_WAIT_2", "CLOSING",
                                          "CLOSE_WAIT",  "LAST_ACK",   "TIME_WAIT"};
        return kNames[state];
    }

    EndpointCore core = {};
    pelmoMsg* message = nullptr;
    double now = kWireBegin;
    uint16_t port = 1;  // of the peer that sends and is sent to
    uint32_t life = 0;  // how often it has started again

    std::map<uint16_t, uint32_t> coreIds;
    std::string sent, lost;
    uint32_t notices = 0;

  private:
    static void add(std::string& text, const char* separator, const std::string& more) {
        text += (text.empty() ? "" : separator) + more;
    }

    static void onSend(void* closure, const PeerAddress&, const OutDatagram& datagram) {
        auto* const self = static_cast<CoreWire*>(closure);
        std::vector<uint8_t> bytes(datagram.head.begin(), datagram.head.end());
        bytes.insert(bytes.end(), datagram.payload.begin(), datagram.payload.end());
        Packet packet;
        if (!packetRead(bytes, &packet)) std::abort();
        const PacketHeader& header = packet.header;
        const bool isReset = (header.flags & kFlagRst) != 0;
        if (!isReset) self->coreIds[self->port] = header.sourceId;
        std::ostringstream text;
        text << ((header.flags & kFlagSyn) != 0   ? "SYN"
                 : (header.flags & kFlagFin) != 0 ? "FIN"
                 : isReset                        ? "RST"
                 : packet.payload.empty()         ? "ACK"
                                                  : "DATA")
             << ((header.flags & kFlagCloseNotice) != 0 ? "! " : " ") << header.seq;
        if (!isReset) text << '/' << header.ack;
        if (self->elapsed >= 0) text << " at " << self->elapsed;
        add(self->sent, ", ", text.str());
    }

    void keep() {
        for (uint32_t i = 0; out.messages != nullptr && i < out.messages->count; ++i, ++received)
            msgRelease(static_cast<pelmoMsg*>(out.messages->items[i]));
        dpaDestroy(out.messages);
        for (const LossReport& loss : std::span(out.losses, out.lossCount))
            add(lost, ", ", (loss.inbound ? "in lost " : "out lost ") + std::to_string(loss.bytes));
        notices |= out.notices;
        out = {};
    }

    EndpointOutput out = {};
    uint32_t lastDrawn = 0;
    double elapsed = -1;
    uint32_t received = 0;
    ConnectionState stateShown = kClosed;
};
