// The numbers and the silence of a circuit: what each message of the peer and each tick of the
// timer means for it. Nothing here knows a clock, a lock or a message's bytes.
//
// Data, heartbeats and goodbyes of a direction share one row of numbers, from 1. A number that
// isn't the next one ends the circuit, and so does a peer that was silent for kMostSilentTicks. A
// heartbeat leaves every kHeartbeatTicks, whatever data went out meanwhile.
//
// Units: ticks of kTickSeconds.

#pragma once

#include <cstdint>

#include "lib/transport/circuit/circuit_message.h"

inline constexpr double kTickSeconds = 10.0;
inline constexpr uint8_t kHeartbeatTicks = 3;
inline constexpr uint8_t kMostSilentTicks = 11;

struct CircuitCount {
    uint64_t
        sendSeq;  // the last number given to a message; it isn't taken back when the send fails
    uint64_t recvSeq;        // the last number that came
    uint8_t ticksSinceSend;  // of a heartbeat
    uint8_t ticksSilent;
};

enum class Tick {
    kNothing,
    kHeartbeat,  // is due, at each tick until countHeartbeatSent
    kSilent,     // the peer was, for too long
};
[[nodiscard]] Tick countTick(CircuitCount& count);
void countHeartbeatSent(CircuitCount& count);

enum class Arrival {
    kParcel,   // to be unwrapped and delivered
    kSign,     // of life, nothing more
    kGoodbye,  // the peer has ended the circuit
    kGap,  // something is missing, or came twice: our own next number skips one, so that the peer
           // finds a gap too
    kInvalid,
};
[[nodiscard]] Arrival countArrival(CircuitCount& count, const CircuitHead& head);
