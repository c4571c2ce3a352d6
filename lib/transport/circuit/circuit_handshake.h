// How two ends become a circuit: the connecting end sends a request to the inbox that it was given,
// the accepting end answers it with an acceptance, and each then knows the other's control inbox.
// Nothing is sent twice, and an end that comes later finds the circuit taken.
//
// Threads: functions of their arguments.

#pragma once

#include <cstdint>

#include "lib/transport/circuit/circuit_message.h"

enum class CircuitState : uint32_t { kWaiting, kConnected, kDisconnected };
enum class CircuitEnd : uint8_t { kAccepting, kConnecting };

// Does the message, which came to this end's handshake inbox, begin the circuit? What is another
// end's, comes too late or makes no sense is ignored.
[[nodiscard]] bool handshakeTakes(CircuitEnd end,
                                  CircuitState state,
                                  pelmoMsg* message,
                                  CircuitOffer* out);

// The advisory by which a daemon reports that the transport of a peer is gone. False if none will
// come: for a peer within the process, one beyond a router, and a subject that gets too long.
[[nodiscard]] bool handshakeUnreachableSubject(char (&text)[kSubjectTextBytes],
                                               const uint8_t* controlInbox);
