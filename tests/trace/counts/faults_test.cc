#include "trace/counts/faults.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/support/capture_reset.h"
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
    const struct {
        const char* key;
        Bytes packet;
    } cases[] = {
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

TEST(Faults, OfFramesCountThemAmongTheFrames) {
    TraceRun run;
    EXPECT_FALSE(handleFrame(Bytes(13)));
    EXPECT_FALSE(handleFrame(Bytes(19)));
    EXPECT_FALSE(handleFrame(patched(Bytes(33), 12, {8, 0})));
    analyze({nullPacket({}, {})});
    const SnapHeader& snapshot = *snapshotTake({});
    EXPECT_EQ(kindsOf(snapshot), (Kinds{{"ethernet_header_cut", 1}, {"ip_header_cut", 2}}));
    EXPECT_EQ(snapshot.frames, 4u);
    EXPECT_EQ(snapshot.packets, 1u);
}

// Also where packets wait for their turn.
TEST(Faults, HaveTheTimesOfTheirPackets) {
    TraceRun run(false);
    for (uint32_t i = 0; i < 5000; ++i) {
        const Bytes packet = nullPacket({.srcIp = ipv4(10, 1, i >> 8, i & 0xff)}, {});
        classifyPacket({1, 0}, packet.data(), packet.size());
    }
    const Bytes bad = withoutChecksum(nullPacket({}, {}));
    const Bytes good = nullPacket({}, {});
    for (const int32_t seconds : {100, 101, 102, 103}) {
        const Bytes& packet = seconds == 101 || seconds == 102 ? bad : good;
        packetEnter({seconds, 7}, packet.data(), packet.size());
    }
    packetsSettle();
    const FaultCount& count =
        snapshotTake({})->faults[static_cast<size_t>(Fault::kUdpChecksumMissing)];
    EXPECT_EQ(count.packets, 2u);
    EXPECT_EQ(count.first, (TimeSpec{101, 7}));
    EXPECT_EQ(count.last, (TimeSpec{102, 7}));
}

}  // namespace
