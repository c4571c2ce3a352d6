// The opening of a connection to a daemon, from its first byte to the agreed frame.
//
//     daemon                                client
//     greeting, 12: 0 | version | -     ->
//                                       <-  answer, 12: 0 | 4 | 1 for a daemon of this host
//     frame, 64: offer or counter       ->                 (lib/transport/ipq/hello.h)
//                                       <-  frame, 64: our terms
//     frame, 64: agreed                 ->
//
// All words are big-endian.
//
//     Handshake handshake = handshakeBegin(isLocal);
//     do {
//         read exactly handshake.wantedBytes, whatever that takes
//         result = handshakeTake(&handshake, bytes);
//         write result.answer
//     } while (result.outcome == kHandshakeGoesOn);
//
// What cuts the connection off ends the handshake: a short read with handshakeReadCutOff's status,
// a write that fails with kHandshakeWriteCutOff.
//
// Threads: pure; the owner of the record serialises.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "lib/base/status.h"
#include "lib/transport/ipq/hello.h"

inline constexpr size_t kGreetingBytes = 12;
inline constexpr size_t kHandshakeMostBytes = kHelloBytes;  // of one read

enum HandshakeOutcome : uint32_t { kHandshakeGoesOn, kHandshakeAgreed, kHandshakeFailed };

enum class HandshakeStep : uint32_t { kGreeting, kFrames };

struct Handshake {
    HandshakeStep step;
    size_t wantedBytes;  // of the next read
    bool isLocal;
    uint8_t answer[kGreetingBytes];
    HelloFrame frame;  // the last one taken, or its answer; once agreed, the terms
};

struct HandshakeResult {
    HandshakeOutcome outcome;
    pelmoStatus status;               // of kHandshakeFailed
    std::span<const uint8_t> answer;  // may be empty; within the record
};

[[nodiscard]] Handshake handshakeBegin(bool isLocal);

// Takes `wantedBytes`. kStatusDaemonNotConnected for bytes that are no greeting,
// kStatusWrongVersion for another protocol version than 3 or 4, kStatusInitFailed for a frame that
// can't be agreed on.
[[nodiscard]] HandshakeResult handshakeTake(Handshake* handshake, const uint8_t* bytes);

// The connection ended in `wantedBytes`, or in the answer to what was taken last.
[[nodiscard]] pelmoStatus handshakeReadCutOff(const Handshake& handshake);
inline constexpr pelmoStatus kHandshakeWriteCutOff = kStatusInitFailed;
