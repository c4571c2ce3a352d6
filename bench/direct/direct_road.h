// One way for messages to get from process to process without a broker between them, over UDP. The
// measurements of direct_bench.cc are the same for each.
//
// Each has datagrams of kRoadDatagramBytes and kRoadFlightBytes under way at most, sends at once
// what it may send, and acknowledges at once.
//
// Failure: a call that fails ends the process with a line; a measurement with a fault is none.

#pragma once

#include <cstdint>

inline constexpr uint32_t kRoadDatagramBytes = 1464;
inline constexpr uint32_t kRoadFlightBytes = 32 * 1432;
inline constexpr uint32_t kRoadBacklogBytes = 1
                                              << 20;  // what waits to be sent, where one may choose

struct DirectRoad {
    const char* name;

    // Both run until the process ends, on a thread of their own. Messages come to the UDP port on
    // loopback, which roadIsReady reports, and roadTake gets all that arrives.
    void (*receive)(uint16_t port);

    // Sends as long as roadMaySend lets it, and stays to see to what is under way.
    void (*send)(uint16_t port, uint32_t messageBytes);

    // What the sender has sent so far; null where that isn't counted.
    uint64_t (*packetsSent)();
};

extern const DirectRoad kPelmoDirect;
extern const DirectRoad kEnetDirect;
extern const DirectRoad kSctpDirect;
extern const DirectRoad kBareDirect;  // datagrams as they are, of the messages' size

// The measurement's side, called by the roads.
void roadIsReady();
void roadTake(uint64_t bytes, uint64_t messages);

// Waits until the next message may go; false when there is none.
[[nodiscard]] bool roadMaySend();

// A UDP port of loopback that nobody has.
[[nodiscard]] uint16_t roadFreePort();

[[noreturn]] void roadFail(const char* what, const char* why);
