#include "trace/packets/checksum.h"

#include <bit>
#include <cstring>

#include "lib/base/bytes.h"

namespace {

// End-around carries may be added at any time and in any width: the ones' complement sum stays the
// same (RFC 1071, 2). So the sum runs over 64-bit words with the carries counted beside it, in two
// chains that don't wait for each other.
__extension__ using Wide = unsigned __int128;

template <typename Word = uint64_t>
uint64_t loadWord(const uint8_t* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// Up to 7 bytes, by loads of fixed sizes: copied into one word, they would be read back before they
// are all there, and the load would wait for the stores.
uint64_t loadRest(const uint8_t* at, size_t byteCount) {
    uint64_t rest = 0;
    if ((byteCount & 4) != 0) {
        rest += loadWord<uint32_t>(at);
        at += 4;
    }
    if ((byteCount & 2) != 0) {
        rest += loadWord<uint16_t>(at);
        at += 2;
    }
    if ((byteCount & 1) != 0) rest += hostOrder16(static_cast<uint16_t>(*at << 8));
    return rest;
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
    even += loadRest(data, byteCount);

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
