#include "trace/counts/faults.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/trace_run.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/snapshot_totals.h"
#include "trace/counts/statistics.h"
#include "trace/packets/classify.h"
#include "trace/packets/packet_pipeline.h"

namespace {

using Kinds = std::map<std::string, uint64_t>;

Kinds kindsOf(const SnapHeader& snapshot) {
    Kinds kinds;
    for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        const uint64_t packets = snapshot.faults[kind].packets;
        if (packets != 0) kinds[faultRow(static_cast<Fault>(kind)).key] = packets;
    }
    return kinds;
}

Bytes withoutChecksum(const Bytes& packet) {
    return patched(packet, kUdpChecksumAt, {0, 0});
}

Bytes oskaPatched(const Bytes& packet, size_t offset, const Bytes& patch) {
    return sealed(patched(packet, kUdpAt + 8 + offset, patch));
}

// Every kind, by a packet that has it alone, with and without the log.
TEST(Faults, AreCountedByKindWhetherOrNotTheyAreLogged) {
    const PacketHead head;
    const Bytes null = nullPacket(head, {});
    const auto data = [&head](const Bytes& payload) { return dataPacket(head, payload); };
    const Bytes subject = field(named("sub"), 2, bytesOf("x"));
    const std::pair<const char*, Bytes> cases[] = {
        {"udp_header_cut", cut(null, kUdpAt + 7)},
        {"udp_length_too_large", sealed(patched(null, 2, be16(20)))},
        {"udp_checksum_missing", withoutChecksum(null)},
        {"udp_checksum_invalid", patched(null, kUdpAt + 8 + 23, {9})},
        {"header_cut", oskaPacket(head, 1, {})},
        {"type_invalid", oskaPacket(head, 2, {})},
        {"source_invalid", nullPacket({.src = 0}, {})},
        {"destination_invalid", nullPacket({.dst = ipv4(10, 0, 0, 9)}, {})},
        {"destination_mismatch", ptpDataPacket({.dst = ipv4(10, 0, 0, 9)}, {1})},
        {"length_invalid", oskaPatched(data({}), 28, {0x80, 0})},
        {"length_too_large", oskaPatched(data(message({})), 28, {0, 9})},
        {"message_header_cut", data(Bytes(7))},
        {"message_magic_invalid", data(Bytes(8))},
        {"message_length_invalid", data(patched(message({}), 0, be32(7)))},
        {"message_length_too_large", data(patched(message({}), 0, be32(9)))},
        {"message_field_invalid", data(message({Bytes{9}}))},
        {"message_subject_invalid", data(message({subject}))},
    };
    for (const auto& [key, packet] : cases) {
        SCOPED_TRACE(key);
        for (const bool complain : {false, true}) {
            TraceRun run(complain);
            analyze({packet});
            EXPECT_EQ(run.logged().size(), complain ? 1u : 0u);
            EXPECT_EQ(kindsOf(*snapshotTake({})), (Kinds{{key, 1}}));
            EXPECT_EQ(kindsOf(*snapshotTake({})), Kinds());
        }
    }
}

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
        if (i % 8 == 2) packets.push_back(withoutChecksum(nullPacket({}, {})));
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

TEST(Packets, AreCountedAsIfNoneHadWaited) {
    const Lines report = reportOf(packetEnter);
    EXPECT_EQ(report, reportOf(classifyPacket));
    EXPECT_EQ(Lines(report.end() - 4, report.end()), (Lines{"116", "201", "116", "201"}));
}

}  // namespace
