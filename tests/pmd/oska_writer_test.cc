#include "pmd/oska_writer.h"

#include <gtest/gtest.h>

#include <vector>

#include "lib/base/bytes.h"

namespace {

constexpr uint32_t kEpoch = 0x80000000 | 1700000000;

struct TestWriter {
    OskaWriter writer;
    std::string packets;  // a null packet "null 3", a packet of data "1:300" or, a part, "2:1440/1"
    size_t count = 0;
    std::vector<uint8_t> payload;

    TestWriter() { oskaWriterInit(&writer, 0x0100007f, 0x010000ef, 1700000000, onPacket, this); }

    void add(size_t sizeBytes, double now) {
        oskaWriterAdd(&writer, std::vector<uint8_t>(sizeBytes), now);
    }

    static void onPacket(void* closure, std::span<const uint8_t> packet) {
        auto* self = static_cast<TestWriter*>(closure);
        const uint8_t* at = packet.data();
        EXPECT_EQ(loadBe32At(at), kOskaMagic);
        EXPECT_EQ(loadNet32At(at + 4), 0x0100007fu);
        EXPECT_EQ(loadNet32At(at + 12), 0x010000efu);
        const auto type = static_cast<int16_t>(loadBe16At(at + 16));
        const uint32_t epochs = loadBe32At(at + 8) - kEpoch;
        std::string text = (epochs != 0 ? "epoch+" + std::to_string(epochs) + " " : "") +
                           (type == kOskaNull ? "null " : "") + std::to_string(loadBe32At(at + 20));
        if (type == kOskaData) {
            const uint16_t length = loadBe16At(at + 28), part = loadBe16At(at + 30);
            EXPECT_EQ(packet.size(), length + 32u);
            text += ":" + std::to_string(length) + (part != 0 ? "/" + std::to_string(part) : "");
            self->payload.insert(self->payload.end(), at + 32, at + packet.size());
        }
        if (++self->count < 10) self->packets += (self->packets.empty() ? "" : " ") + text;
    }
};

TEST(OskaWriter, PacksMessages) {
    const std::pair<std::vector<size_t>, const char*> cases[] = {
        {{}, ""},
        {{100, 200}, "1:300"},
        {{700, 740, 9}, "1:1440 2:9"},
        {{700, 741}, "1:700 2:741"},
        {{10, 1441, 20}, "1:10 2:1440/1 3:1/2 4:20"},
        {{2880}, "1:1440/1 2:1440/2"},
    };
    for (const auto& [messages, packets] : cases) {
        TestWriter test;
        std::vector<uint8_t> all;
        for (const size_t size : messages) {
            std::vector<uint8_t> message(size);
            for (size_t i = 0; i < size; ++i)
                message[i] = static_cast<uint8_t>(i * 7 + size);
            oskaWriterAdd(&test.writer, message, 1.0);
            all.insert(all.end(), message.begin(), message.end());
        }
        oskaWriterFlush(&test.writer, 1.0);
        EXPECT_EQ(test.packets, packets);
        EXPECT_EQ(test.payload, all);
    }
}

TEST(OskaWriter, LeavesOutWhatNoNumberOfPartsHolds) {
    TestWriter test;
    test.add(kOskaMostMessageBytes + 1, 0);
    EXPECT_EQ(test.count, 0u);
    EXPECT_EQ(test.writer.leftOut, 1u);
    test.add(kOskaMostMessageBytes, 0);
    EXPECT_EQ(test.count, 65535u);
}

TEST(OskaWriter, SendsNullPacketsWhileIdleAndBeginsAnEpochAfterTheLastNumber) {
    TestWriter test;
    oskaWriterTick(&test.writer, 0.0);
    oskaWriterTick(&test.writer, 1.9);
    EXPECT_EQ(oskaWriterDeadline(&test.writer), 2.0);
    test.add(50, 1.95);
    oskaWriterFlush(&test.writer, 1.95);
    oskaWriterTick(&test.writer, 3.9);
    oskaWriterTick(&test.writer, 3.95);
    test.writer.sequence = UINT32_MAX;
    test.add(50, 4.0);
    oskaWriterFlush(&test.writer, 4.0);
    EXPECT_EQ(test.packets, "null 0 1:50 null 1 epoch+1 1:50");
}

}  // namespace
