#include "trace/packets/checksum.h"

#include <gtest/gtest.h>

#include <random>

#include "lib/base/bytes.h"
#include "tests/support/packet_builder.h"

namespace {

uint16_t checksumOf(std::span<const uint8_t> bytes) {
    return hostOrder16(udpChecksum(bytes.data(), bytes.size(), nullptr));
}

// At each length and alignment, at once and in even pieces.
void expectPlainSums() {
    std::mt19937 random(1071);
    for (size_t sizeBytes = 1; sizeBytes < 600; ++sizeBytes) {
        const size_t alignment = random() % 16;
        Bytes room(alignment + sizeBytes);
        for (uint8_t& byte : room)
            byte = random() % 3 == 0 ? 0xff : static_cast<uint8_t>(random());
        const std::span<const uint8_t> summed = std::span(room).subspan(alignment);
        const uint16_t expected = plainChecksum(Bytes(summed.begin(), summed.end()));
        EXPECT_EQ(checksumOf(summed), expected) << sizeBytes << " bytes at " << alignment;

        uint32_t sum = 0;
        uint16_t checksum = 0;
        for (size_t at = 0; at < sizeBytes;) {
            const size_t piece = std::min<size_t>(random() % 100 * 2, sizeBytes - at);
            checksum = udpChecksum(summed.data() + at, piece, &sum);
            at += piece;
        }
        EXPECT_EQ(hostOrder16(checksum), expected) << sizeBytes << " bytes in pieces";
    }
}

// By each kind of vector that the machine has.
TEST(UdpChecksum, IsThePlainSumHoweverItIsTaken) {
    const bool machineIsWide = checksumWide;
    expectPlainSums();
    checksumWide = false;
    expectPlainSums();
    checksumWide = machineIsWide;
}

}  // namespace
