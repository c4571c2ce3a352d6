// The Internet checksum of RFC 768 and RFC 1071.

#pragma once

#include <cstddef>
#include <cstdint>

// Sums 16-bit words in memory order, so that the result compares with a checksum field as stored.
// Calls chain through `accumulator`, which starts at 0 or at a sum of words that come from
// elsewhere; only the last of a chain may have an odd length. The result is never 0, as UDP wants
// it: 0 in the field says that there is none. Over bytes that carry their own checksum, a field
// other than 0, it is 0xffff if that is right, and no other number.
[[nodiscard]] uint16_t udpChecksum(const uint8_t* data, size_t byteCount, uint32_t* accumulator);

// Whether vectors of 32 bytes are used, AVX2, or of 16: what the processor has, found out before
// main. A test may clear it.
extern bool checksumWide;
