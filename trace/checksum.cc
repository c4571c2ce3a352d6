#include "trace/checksum.h"

#include <bit>
#include <cstring>

namespace {

// End-around carries may be added at any time and in any width: the ones' complement sum stays the
// same (RFC 1071, 2). So the sum runs over 64-bit words with the carries counted beside it, in two
// chains that don't wait for each other.
__extension__ using Wide = unsigned __int128;

uint64_t loadWord(const uint8_t* at) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

uint32_t fold32(uint64_t sum) {
    sum = (sum & 0xffffffff) + (sum >> 32);
    return static_cast<uint32_t>((sum & 0xffffffff) + (sum >> 32));
}

uint32_t sumOf(const uint8_t* data, size_t byteCount) {
    Wide even = 0, odd = 0;
    for (; byteCount >= 32; data += 32, byteCount -= 32) {
        even += loadWord(data);
        odd += loadWord(data + 8);
        even += loadWord(data + 16);
        odd += loadWord(data + 24);
    }
    for (; byteCount >= 8; data += 8, byteCount -= 8) {
        even += loadWord(data);
    }
    uint64_t rest = 0;
    std::memcpy(&rest, data, byteCount);
    even += rest;

    const Wide sum = even + odd;
    return fold32(uint64_t{fold32(static_cast<uint64_t>(sum))} + static_cast<uint64_t>(sum >> 64));
}

}  // namespace

uint16_t udpChecksum(const uint8_t* data, size_t byteCount, uint32_t* accumulator) {
    uint32_t sum = fold32(uint64_t{sumOf(data, byteCount)} + (accumulator ? *accumulator : 0));
    if (accumulator != nullptr) *accumulator = sum;
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum == 0xffff ? 0xffff : ~sum);
}
