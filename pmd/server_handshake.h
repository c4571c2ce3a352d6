// The opening handshake of a connection, in the daemon's role: bytes and frames in, bytes and a
// verdict out.
//
//     daemon -> client   12 bytes: 0 | version 4 | 0
//     client -> daemon   12 bytes: 0 | version 4 | 1 if it takes the daemon for a local one, else 0
//     daemon -> client   64 bytes: a first offer (lib/transport/ipq/hello.h)
//     client -> daemon   64 bytes: its answer; each side answers the other until they agree
//
// The daemon has the last word: its frame of type 1 ends the handshake, and what the client sends
// after that belongs to the queue. So no more is read than serverHandshakeWants says.
//
// Threads: no lock, no socket, no clock; the owner serialises all calls.

#pragma once

#include <cstdint>
#include <span>

#include "lib/transport/ipq/hello.h"

enum class HandshakeVerdict : uint8_t {
    kGoOn,
    kAgreed,   // `frame` has the terms of the queue
    kRefused,  // `fault` says why
};

struct ServerHandshake {
    bool answered;      // the greeting is
    uint8_t rounds;     // frames that the client has sent
    uint8_t have;       // bytes in `frame`
    HelloFrame frame;   // what is coming in; once agreed, the terms
    const char* fault;  // constant text, null until refused
};

// What the owner sends, up to 64 bytes that belong to the handshake until the next call.
using HandshakeBytes = std::span<const uint8_t>;

// The greeting.
[[nodiscard]] HandshakeBytes serverHandshakeBegin(ServerHandshake* handshake);

// How many bytes may be read next: 1 to 64.
[[nodiscard]] uint32_t serverHandshakeWants(const ServerHandshake* handshake);

// At most so many. `*out` is sent to the client before anything else, also to one that is
// refused; it may be empty.
[[nodiscard]] HandshakeVerdict serverHandshakeTake(ServerHandshake* handshake,
                                                   HandshakeBytes bytes,
                                                   HandshakeBytes* out);
