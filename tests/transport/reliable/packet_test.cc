#include "lib/transport/reliable/packet.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// Fragment option, and "abc" after it.
const Bytes kGolden = {
    0x81, 2,   3,  4,  0x85, 6,  7,  8,  0x89, 10, 11,   12, 13, 14, 15,   16,    // ids, seq
    0x91, 18,  19, 20, 21,   22, 23, 24, 9,    2,  0x80, 1,  0,  20, 0xfd, 0xf7,  // ack to sum
    4,    20,  0,  0,  0x99, 26, 27, 28,                                          // total size
    0xa1, 34,  35, 36, 37,   38, 39, 40, 0xa9, 42, 43,   44,                      // first, offset
    'a',  'b', 'c'};

const PacketHeader kHeader = {.sourceId = 0x81020304,
                              .destId = 0x85060708,
                              .seq = 0x890a0b0c0d0e0f10,
                              .ack = 0x9112131415161718,
                              .flags = kFlagFin | kFlagCloseNotice,
                              .window = 0x8001u << 2};
const FragmentOption kFragment = {
    .totalSize = 0x991a1b1c, .firstSeq = 0xa122232425262728, .offset = 0xa92a2b2c};

Bytes headOf(const PacketHeader& header, const FragmentOption* fragment) {
    uint8_t head[kMostHeadBytes];
    std::fill(std::begin(head), std::end(head), 0xee);
    return {head, head + packetWriteHead(head, header, fragment)};
}

bool reads(const Bytes& datagram) {
    const Bytes exact(datagram);  // so that the address sanitizer sees a byte read too far
    Packet packet;
    return packetRead(exact, &packet);
}

TEST(Packet, HasOneForm) {
    EXPECT_EQ(headOf(kHeader, &kFragment), Bytes(kGolden.begin(), kGolden.end() - 3));
    Bytes plain(kGolden.begin(), kGolden.begin() + kPacketHeaderBytes);
    plain[29] = 0;
    EXPECT_EQ(headOf(kHeader, nullptr), plain);

    Packet packet;
    ASSERT_TRUE(packetRead(kGolden, &packet));
    EXPECT_EQ(headOf(packet.header, &packet.fragment), Bytes(kGolden.begin(), kGolden.end() - 3));
    EXPECT_TRUE(packet.isFragment);
    EXPECT_EQ(Bytes(packet.payload.begin(), packet.payload.end()), Bytes({'a', 'b', 'c'}));
    ASSERT_TRUE(packetRead(plain, &packet));
    EXPECT_FALSE(packet.isFragment);
    EXPECT_TRUE(packet.payload.empty());
}

TEST(Packet, CarriesWindowsAndBoundsThem) {
    const auto windowOf = [](const Bytes& datagram) {
        Packet packet;
        EXPECT_TRUE(packetRead(datagram, &packet));
        return packet.header.window;
    };
    for (const auto& [written, read] : {std::pair<uint64_t, uint64_t>{0, 0},
                                        {0xffff, 0xffff},
                                        {0x10001, 0x10000},
                                        {0x1fffff, 0x1fffe0},
                                        {kMostWindow - 1, 0xffff0000},
                                        {UINT64_MAX, kMostWindow}}) {
        PacketHeader header = kHeader;
        header.window = written;
        EXPECT_EQ(windowOf(headOf(header, nullptr)), read) << written;
    }
    const struct {
        uint8_t shift, mantissa;
        uint64_t read;
    } arrived[] = {{255, 0, 0},          {31, 1, 1u << 31},    {32, 1, kMostWindow},
                   {33, 1, kMostWindow}, {64, 1, kMostWindow}, {255, 255, kMostWindow}};
    for (const auto& [shift, mantissa, read] : arrived) {
        Bytes datagram = kGolden;
        std::ranges::copy(Bytes{shift, 0, mantissa}, datagram.begin() + 25);
        EXPECT_EQ(windowOf(datagram), read) << int{mantissa} << " << " << int{shift};
    }
}

TEST(Packet, IsNoneWhereItsLengthsOrItsSumDontFit) {
    const struct {
        size_t at;
        Bytes patch;
        bool reads;
    } cases[] = {
        {0, {0x80}, false},         // the checksum covers ids and number
        {30, {0xfd, 0xf6}, false},  //
        {16, {0xff, 0xff}, true},   // and nothing after them
        {28, {0xff}, true},         // reserved
        {34, {0xff, 0xff}, true},   // reserved
        {29, {23}, false},          // the payload as a record
        {29, {19}, false},          // a record beyond the options
        {29, {21}, false},          // a record without length
        {33, {19}, false},          // a fragment of another size
        {33, {0}, false},           //
        {32, {5}, true},            // skipped
        {32, {5, 0}, false},
        {32, {5, 1, 19}, false},
        {32, {5, 10, 0, 0, 0, 0, 0, 0, 0, 0, 6, 10}, true},
        {32, {5, 18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 2}, false},
    };
    for (const auto& [at, patch, isPacket] : cases) {
        Bytes datagram = kGolden;
        std::copy(patch.begin(), patch.end(), datagram.begin() + static_cast<ptrdiff_t>(at));
        EXPECT_EQ(reads(datagram), isPacket) << at << ": " << testing::PrintToString(patch);
    }
    for (size_t size = 0; size <= kMostDatagramBytes + 1; ++size) {
        Bytes datagram = kGolden;
        datagram.resize(size);
        EXPECT_EQ(reads(datagram), size >= kMostHeadBytes && size <= kMostDatagramBytes) << size;
    }
}

}  // namespace
