#include "watch/messages/assembly.h"

#include <gtest/gtest.h>

#include <tuple>

#include "lib/base/bytes.h"
#include "lib/msg/oska.h"
#include "lib/msg/wire.h"

namespace {

// The sender, the bytes, and why they are no whole message.
using Handed = std::tuple<uint32_t, size_t, Incomplete>;

struct Feed {
    Feed() {
        assembly.context = &handed;
        assembly.handOn = [](const AssembledMessage& message, void* context) {
            static_cast<std::vector<Handed>*>(context)->push_back(
                {message.packet->srcIp, message.bytes.size(), message.incomplete});
        };
    }

    // A message of that size begins in packet 1 of the sender, with so many of its bytes.
    void begin(uint32_t srcIp, uint32_t messageBytes, size_t partBytes) {
        std::vector<uint8_t> bytes(partBytes);
        storeBe32At(bytes.data(), messageBytes);
        storeBe32At(bytes.data() + kMessageMagicOffset, kMessageMagic);
        take(srcIp, 1, 1, bytes);
    }

    void take(uint32_t srcIp, uint32_t number, uint16_t fragment, std::span<const uint8_t> bytes) {
        BusPacket packet = {};
        packet.srcIp = srcIp;
        packet.type = kOskaData;
        packet.number = number;
        packet.fragment = fragment;
        packet.isComplete = true;
        packet.payload = bytes;
        assemblyTake(assembly, packet);
    }

    Assembly assembly;
    std::vector<Handed> handed;
};

}  // namespace

TEST(Assembly, BeyondItsMemoryTheLeastRecentlyHeardSenderGivesUpItsMessage) {
    Feed feed;
    feed.assembly.mostBytes = 300;
    const std::vector<uint8_t> more(50);
    for (const uint32_t sender : {1u, 2u, 3u})
        feed.begin(sender, 1000, 100);
    feed.take(1, 2, 2, more);
    EXPECT_EQ(feed.handed, (std::vector<Handed>{{2, 100, Incomplete::kForgotten}}));
    EXPECT_EQ(feed.assembly.begunBytes, 250u);

    // One sender's own message may take all of it, and goes on.
    for (uint32_t number = 3; number < 20; ++number)
        feed.take(1, number, static_cast<uint16_t>(number), more);
    EXPECT_EQ(feed.handed.back(), (Handed{1, 1000, Incomplete::kNo}));
    EXPECT_EQ(feed.handed.size(), 3u);
    EXPECT_EQ(feed.assembly.begunBytes, 0u);
}

TEST(Assembly, BeyondItsSendersTheLeastRecentlyHeardIsForgotten) {
    Feed feed;
    feed.assembly.mostSenders = 2;
    feed.begin(1, 1000, 100);
    feed.begin(2, 1000, 200);
    feed.take(1, 2, 2, std::vector<uint8_t>(10));
    feed.begin(3, 1000, 300);
    EXPECT_EQ(feed.handed, (std::vector<Handed>{{2, 200, Incomplete::kForgotten}}));
    EXPECT_EQ(feed.assembly.byKey.size(), 2u);
}
