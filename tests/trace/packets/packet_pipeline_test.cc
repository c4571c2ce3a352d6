#include "trace/packets/packet_pipeline.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"

namespace {

using Handle = void (*)(TimeSpec time, const uint8_t* ip, size_t length);

std::vector<Bytes> packetsOfAllKinds() {
    std::vector<Bytes> packets;
    for (uint32_t i = 0; i < 20; ++i) {
        const PacketHead head = {.srcIp = ipv4(10, 0, 0, i % 7)};
        packets.push_back(dataPacket(head, busMessage("A.B" + std::to_string(i), 60)));
        packets.push_back(nullPacket({.srcIp = ipv4(10, 0, 2, i)}, {}));
        packets.push_back(ptpDataPacket(head, {1}));
        packets.push_back(rreqPacket(head, 1));
        packets.push_back(udpPacket({}, Bytes(i)));
        if (i % 5 == 0) packets.push_back(dataPacket(head, busMessage("LARGE", 600)));
        if (i % 8 == 2) packets.push_back(patched(nullPacket({}, {}), kUdpChecksumAt, {0, 0}));
    }
    return packets;
}

// The report of all of them, each a second after the one before, and the times of a fault. Of so
// many senders that packets may wait for their turn.
Lines reportOf(Handle handle) {
    TraceRun run(false);
    for (uint32_t sender = 0; sender <= 4096; ++sender)
        analyze({nullPacket({.srcIp = ipv4(10, 1, 0, 0) + sender}, {})});
    int32_t seconds = 100;
    for (const Bytes& packet : packetsOfAllKinds()) {
        framePlace = {static_cast<uint64_t>(seconds), 1};
        handle({seconds++, 7}, packet.data(), packet.size());
    }
    packetsSettle();
    framePlace = {};
    const FaultCount count = statistics.faults[static_cast<size_t>(Fault::kUdpChecksumMissing)];
    Lines report = run.report();
    for (const uint64_t number : {count.packets, count.first.place.number, count.last.place.number,
                                  static_cast<uint64_t>(count.first.time.seconds),
                                  static_cast<uint64_t>(count.last.time.seconds)})
        report.push_back(std::to_string(number));
    return report;
}

TEST(PacketPipeline, CountsPacketsAsIfNoneHadWaited) {
    const Lines report = reportOf(packetEnter);
    EXPECT_EQ(report, reportOf(classifyPacket));
    EXPECT_EQ(Lines(report.end() - 4, report.end()), (Lines{"116", "201", "116", "201"}));
}

}  // namespace
