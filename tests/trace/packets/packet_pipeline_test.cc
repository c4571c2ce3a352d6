#include "trace/packets/packet_pipeline.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/settings.h"

namespace {

using Handle = void (*)(TimeSpec time, const uint8_t* ip, size_t length);

PacketHead senderHead(uint32_t sender) {
    return {.srcIp = ipv4(10, 0, 0, 0) + sender};
}

// More senders than the cache is thought to hold; what comes behind may wait.
void meetManySenders() {
    for (uint32_t sender = 0; sender <= 4096; ++sender) {
        analyze({nullPacket(senderHead(sender), {})});
    }
}

std::vector<Bytes> packetsOfAllKinds() {
    std::vector<Bytes> packets;
    for (uint32_t i = 0; i < 20; ++i) {
        const PacketHead head = senderHead(i % 7);
        packets.push_back(dataPacket(head, busMessage("A.B" + std::to_string(i), 60)));
        packets.push_back(nullPacket(senderHead(9000 + i), {}));
        packets.push_back(ptpDataPacket(head, {1}));
        packets.push_back(rreqPacket(head, 1));
        packets.push_back(udpPacket({}, Bytes(i)));
        if (i % 5 == 0) packets.push_back(dataPacket(head, busMessage("LARGE", 600)));
    }
    return packets;
}

Lines treeOf(Handle handle) {
    TraceRun run(false);
    meetManySenders();
    for (const Bytes& packet : packetsOfAllKinds()) {
        handle({}, packet.data(), packet.size());
    }
    packetsSettle();
    Lines tree = treeText();
    tree.push_back(std::to_string(statistics.totalPackets));
    tree.push_back(std::to_string(statistics.oskaPackets));
    return tree;
}

TEST(PacketPipeline, CountsAsIfNothingHadWaited) {
    EXPECT_EQ(treeOf(packetEnter), treeOf(classifyPacket));
}

}  // namespace
