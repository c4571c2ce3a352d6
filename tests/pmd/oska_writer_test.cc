// The packetiser: numbers, lengths and parts of packets, and when a null packet is due.

#include "pmd/oska_writer.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/base/bytes.h"

namespace {

struct Packet {
    int16_t type;
    uint32_t epoch, sequence;
    uint16_t length, fragment;
    size_t bytes;

    bool operator==(const Packet&) const = default;
};

constexpr uint32_t kEpoch = 0x80000000 | 1700000000;

struct TestWriter {
    OskaWriter writer;
    std::vector<Packet> packets;
    std::vector<uint8_t> payload;

    TestWriter() { oskaWriterInit(&writer, 0x0100007f, 0x010000ef, 1700000000, onPacket, this); }

    static void onPacket(void* closure, std::span<const uint8_t> packet) {
        auto* self = static_cast<TestWriter*>(closure);
        const uint8_t* at = packet.data();
        EXPECT_EQ(loadBe32At(at), kOskaMagic);
        EXPECT_EQ(loadNet32At(at + 4), 0x0100007fu);
        EXPECT_EQ(loadNet32At(at + 12), 0x010000efu);
        const auto type = static_cast<int16_t>(loadBe16At(at + 16));
        const bool data = type == kOskaData;
        self->packets.push_back({type, loadBe32At(at + 8), loadBe32At(at + 20),
                                 data ? loadBe16At(at + 28) : uint16_t{0},
                                 data ? loadBe16At(at + 30) : uint16_t{0}, packet.size()});
        if (data) self->payload.insert(self->payload.end(), at + 32, at + packet.size());
    }
};

Packet dataPacket(uint32_t sequence, uint16_t length, uint16_t fragment = 0) {
    return {kOskaData, kEpoch, sequence, length, fragment, size_t{length} + 32};
}

TEST(OskaWriter, PacksMessages) {
    struct Case {
        std::vector<size_t> messages;
        std::vector<Packet> packets;
    };
    const Case cases[] = {
        {{}, {}},
        {{100, 200}, {dataPacket(1, 300)}},
        {{700, 740, 9}, {dataPacket(1, 1440), dataPacket(2, 9)}},
        {{700, 741}, {dataPacket(1, 700), dataPacket(2, 741)}},
        {{1440}, {dataPacket(1, 1440)}},
        {{10, 1441, 20},
         {dataPacket(1, 10), dataPacket(2, 1440, 1), dataPacket(3, 1, 2), dataPacket(4, 20)}},
        {{2880}, {dataPacket(1, 1440, 1), dataPacket(2, 1440, 2)}},
    };
    for (const Case& c : cases) {
        TestWriter test;
        std::vector<uint8_t> all;
        for (const size_t size : c.messages) {
            std::vector<uint8_t> message(size);
            for (size_t i = 0; i < size; ++i) {
                message[i] = static_cast<uint8_t>(i * 7 + size);
            }
            oskaWriterAdd(&test.writer, message, 1.0);
            all.insert(all.end(), message.begin(), message.end());
        }
        oskaWriterFlush(&test.writer, 1.0);
        EXPECT_EQ(test.packets, c.packets);
        EXPECT_EQ(test.payload, all);
    }
}

TEST(OskaWriter, LeavesOutWhatNoNumberOfPartsHolds) {
    TestWriter test;
    const std::vector<uint8_t> message(kOskaMostMessageBytes + 1);
    oskaWriterAdd(&test.writer, message, 0);
    EXPECT_EQ(test.packets.size(), 0u);
    EXPECT_EQ(test.writer.leftOut, 1u);
    oskaWriterAdd(&test.writer, std::span(message).subspan(1), 0);
    EXPECT_EQ(test.packets.size(), 65535u);
    EXPECT_EQ(test.packets.back().fragment, 65535);
}

TEST(OskaWriter, TellsThatItIsAlive) {
    TestWriter test;
    const std::vector<uint8_t> message(50);
    const auto null = [](uint32_t sequence) {
        return Packet{kOskaNull, kEpoch, sequence, 0, 0, 32};
    };
    oskaWriterTick(&test.writer, 0.0);
    oskaWriterTick(&test.writer, 1.9);
    EXPECT_EQ(oskaWriterDeadline(&test.writer), 2.0);
    oskaWriterAdd(&test.writer, message, 1.95);
    oskaWriterFlush(&test.writer, 1.95);
    oskaWriterTick(&test.writer, 3.9);
    oskaWriterTick(&test.writer, 3.95);
    // After the last number a new epoch begins.
    test.writer.sequence = UINT32_MAX;
    oskaWriterAdd(&test.writer, message, 4.0);
    oskaWriterFlush(&test.writer, 4.0);
    Packet next = dataPacket(1, 50);
    next.epoch = kEpoch + 1;
    EXPECT_EQ(test.packets, (std::vector{null(0), dataPacket(1, 50), null(1), next}));
}

}  // namespace
