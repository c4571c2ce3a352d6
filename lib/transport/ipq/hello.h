// Hello frames: what both ends of a queue agree on before its stream. Big-endian.
//
//     0        4           8    12           14       16   20       24       28        64
//     | type 4 | version 4 | -- | limit 2    | form 2 | -- | limitA | limitB | zeroes  |
//
// A client offers with type 2; each side answers with its own terms (3) until they are agreed (1)
// or refused (0).
//
// Threads: pure functions.

#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kHelloBytes = 64;
inline constexpr uint32_t kHelloMostBytes = 0x4000000;  // of either limit
inline constexpr uint32_t kHelloVersion = 2;
inline constexpr uint16_t kHelloFormat = 1;

enum HelloType : uint32_t { kHelloRefused, kHelloAgreed, kHelloOffer, kHelloCounter };

struct HelloFrame {
    uint8_t bytes[kHelloBytes];
};

struct HelloTerms {
    uint32_t type;
    uint32_t version;
    uint16_t queueLimit;  // bytes that the write queue may hold, 0 for no limit
    uint16_t format;
    uint32_t limitA;
    uint32_t limitB;
};

[[nodiscard]] HelloTerms helloRead(const HelloFrame& frame);

// A first offer.
void ipqHelloInit(HelloFrame* frame);

// Turns a received offer or counter-offer into its answer: kHelloAgreed, kHelloCounter with our
// terms, or kHelloRefused, also for any other type.
void ipqHelloNegotiate(HelloFrame* frame);
