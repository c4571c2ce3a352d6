#include "trace/packets/checksum.h"

#include <cstring>

#include "lib/base/bytes.h"

namespace {

// End-around carries may be added at any time and in any width: the ones' complement sum stays the
// same (RFC 1071, 2). So the sum runs over 32-bit words, a vector of them at once, and each is
// widened into a lane of 64 bits, where the carries of 2^32 words have room.
constexpr size_t kWideBytes = 32;

using NarrowLanes [[gnu::vector_size(16)]] = uint64_t;  // SSE2 and NEON: every machine has it
using WideLanes [[gnu::vector_size(kWideBytes)]] = uint64_t;

// The vector of `width` bytes from offset kWideBytes - width + n on is a mask that keeps the last
// n.
constexpr struct LastBytes {
    uint8_t mask[2 * kWideBytes] = {};
    constexpr LastBytes() {
        for (size_t i = kWideBytes; i < sizeof mask; ++i)
            mask[i] = 0xff;
    }
} kLastBytes;

// Takes at least one vector, and an even number of bytes. What is left after the whole vectors is
// taken by one more that ends with the data; it overlaps the one before it, and the bytes that were
// summed there are masked out.
template <typename Lanes>
[[gnu::always_inline]] inline uint64_t sumVectors(const uint8_t* data, size_t byteCount) {
    constexpr size_t width = sizeof(Lanes);
    constexpr uint64_t lowWord = 0xffffffff;
    const uint8_t* const last = data + byteCount - width;
    const uint8_t* const mask = kLastBytes.mask + kWideBytes - width + byteCount % width;

    Lanes words, kept;
    std::memcpy(&words, last, width);
    std::memcpy(&kept, mask, width);
    words &= kept;
    Lanes low = words & lowWord;
    Lanes high = words >> 32;
    for (; data <= last; data += width) {
        std::memcpy(&words, data, width);
        low += words & lowWord;
        high += words >> 32;
    }

    low += high;
    uint64_t sum = 0;
    for (size_t lane = 0; lane < width / sizeof sum; ++lane)
        sum += low[lane];
    return sum;
}

uint64_t sumNarrow(const uint8_t* data, size_t byteCount) {
    return sumVectors<NarrowLanes>(data, byteCount);
}

#ifdef __x86_64__
[[gnu::target("avx2")]] uint64_t sumWide(const uint8_t* data, size_t byteCount) {
    return sumVectors<WideLanes>(data, byteCount);
}

bool machineIsWide() {
    return __builtin_cpu_supports("avx2") != 0;
}
#else
uint64_t sumWide(const uint8_t* data, size_t byteCount) {
    return sumNarrow(data, byteCount);
}

bool machineIsWide() {
    return false;
}
#endif

// A word of this byte and a zero byte, in memory order.
uint64_t oddWord(uint8_t byte) {
    return hostOrder16(static_cast<uint16_t>(byte << 8));
}

uint64_t sumFew(const uint8_t* data, size_t byteCount) {
    uint64_t sum = 0;
    for (; byteCount >= 2; data += 2, byteCount -= 2) {
        sum += loadNet16At(data);
    }
    return byteCount != 0 ? sum + oddWord(*data) : sum;
}

// Half of all lengths are odd, in no order that a processor could learn: hence no branch on it.
uint64_t sumOf(const uint8_t* data, size_t byteCount) {
    if (byteCount < kWideBytes) return sumFew(data, byteCount);
    const size_t oddBytes = byteCount % 2;
    const size_t evenBytes = byteCount - oddBytes;
    const uint64_t lastWord = oddWord(data[byteCount - 1]) * oddBytes;
    return lastWord + (checksumWide ? sumWide(data, evenBytes) : sumNarrow(data, evenBytes));
}

uint32_t fold32(uint64_t sum) {
    sum = (sum & 0xffffffff) + (sum >> 32);
    return static_cast<uint32_t>((sum & 0xffffffff) + (sum >> 32));
}

}  // namespace

bool checksumWide = machineIsWide();

uint16_t udpChecksum(const uint8_t* data, size_t byteCount, uint32_t* accumulator) {
    uint32_t sum = fold32(sumOf(data, byteCount) + (accumulator != nullptr ? *accumulator : 0));
    if (accumulator != nullptr) *accumulator = sum;
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(sum == 0xffff ? 0xffff : ~sum);
}
