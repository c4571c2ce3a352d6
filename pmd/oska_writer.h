// The packetiser: bus messages and `now` in, multicast packets of OSKA (lib/msg/oska.h) out.
//
// Messages share a packet as long as they fit; one that is longer than a packet goes in parts, in
// packets of its own. What was added leaves with oskaWriterFlush at the latest, which the owner
// calls after each batch. An idle sender shows by a null packet every few seconds that it is alive,
// and its last sequence number.
//
// Ownership: messages are borrowed for the call. A packet is the function's for its call alone.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls.
//
// Units: seconds by any clock that only goes forward; addresses in network byte order.

#pragma once

#include <cstdint>
#include <span>

#include "lib/msg/oska.h"

// What fits an Ethernet frame after the headers of IP and UDP.
inline constexpr uint32_t kOskaPacketBytes = 1472;
inline constexpr uint32_t kOskaPayloadBytes = kOskaPacketBytes - kOskaDataHeaderBytes;

// Parts are numbered from 1 with 16 bits.
inline constexpr uint64_t kOskaMostMessageBytes = uint64_t{UINT16_MAX} * kOskaPayloadBytes;

inline constexpr double kOskaNullSeconds = 2.0;

using OskaPacketFunction = void (*)(void* closure, std::span<const uint8_t> packet);

struct OskaWriter {
    // Constant after oskaWriterInit.
    uint32_t source, group;
    OskaPacketFunction send;
    void* closure;

    uint32_t epoch;
    uint32_t sequence;          // of the last data packet; 0 before the first
    double reliabilitySeconds;  // as in null packets; the owner may change it
    double lastSent;

    // Counts.
    uint64_t dataPackets, nullPackets;
    uint64_t leftOut;  // messages too long for any number of parts

    uint32_t used;  // bytes of messages in `packet`
    uint8_t packet[kOskaPacketBytes];
};

// The first packet will be a null packet, due at once.
void oskaWriterInit(OskaWriter* writer,
                    uint32_t source,
                    uint32_t group,
                    uint32_t startSeconds,
                    OskaPacketFunction send,
                    void* closure);

void oskaWriterAdd(OskaWriter* writer, std::span<const uint8_t> message, double now);
void oskaWriterFlush(OskaWriter* writer, double now);

// When the next null packet is due; the tick writes it.
[[nodiscard]] double oskaWriterDeadline(const OskaWriter* writer);
void oskaWriterTick(OskaWriter* writer, double now);
