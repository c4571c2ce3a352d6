#include "trace/counts/snapshot.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/snapshot_storage.h"

namespace {

Bytes data(const PacketHead& head, const char* subject = nullptr) {
    return dataPacket(
        head, subject != nullptr ? message({subjectField(packedSubject(subject))}) : message({}));
}

Lines take(int32_t seconds = 0) {
    SnapHeader* snapshot = snapshotTake({seconds, 0});
    if (snapshot == nullptr) return {"none"};
    snapshotSort(snapshot);
    return snapshotText(*snapshot);
}

Lines takeBody() {
    const Lines all = take();
    return Lines(all.begin() + 1, all.end());
}

const std::string kHead = "0.000000000 to 0.000000000 ";

TEST(Snapshot, CopiesWhatMovedAndZeroesIt) {
    TraceRun run;
    snapshotSetStart({});
    const PacketHead toHost = {.dstIp = ipv4(10, 0, 0, 2)};
    const Bytes status = busMessage("_PM.INFO.SYSTEM.HOST.x");
    analyze({
        data({.seq = 3}, "A.B"),
        data({.seq = 9}, "A.B"),
        data({.seq = 4}),
        nullPacket({.seq = 9}, 0.5),
        dataPacket({.srcIp = ipv4(10, 0, 0, 3), .src = 0}, status),
        rreqPacket({}, 3),
        oskaPacket({}, 5, {}),
        patched(rreqPacket({}, 1), kUdpChecksumAt, be16(0)),
        ptpDataPacket(toHost, Bytes(5)),
        oskaPacket(toHost, 7, {}),
        oskaPacket(toHost, 8, {}),
        patched(oskaPacket(toHost, 9, {}), kUdpChecksumAt, be16(0)),
        Bytes(20),
    });
    const std::string statusBytes = std::to_string(status.size());
    EXPECT_EQ(take(),
              (Lines{
                  kHead + "packets=13 oska=12",
                  "port 7500",
                  " net 239.1.1.1",
                  "  host 10.0.0.1:7001 gaps=5 data=2 bytes=48 nulls=1 rdata=1 rbytes=8 "
                  "reliability=0.5",
                  "  host 10.0.0.3:7001 bad=1 data=1 bytes=" + statusBytes,
                  "  subject A.B",
                  "   from 10.0.0.1:7001 msgs=2 bytes=48",
                  "  subject _PM.INFO.SYSTEM.HOST.x",
                  "   from 10.0.0.3:7001 msgs=1 bytes=" + statusBytes,
                  "  message " + hexText(status),
                  " rl 10.0.0.1:7001 badSent=1 rreqSent=2 rseqSent=4 rrejSent=1",
                  " rl 239.1.1.1:7500 badRecv=1 rreqRecv=2 rseqRecv=4 rrejRecv=1",
                  " ptp 10.0.0.1:7001 badSent=1 dataSent=1 bytesSent=5 nakSent=1 ackmeSent=1 "
                  "ackSent=1",
                  " ptp 10.0.0.2:7500 badRecv=1 dataRecv=1 bytesRecv=5 nakRecv=1 ackmeRecv=1 "
                  "ackRecv=1",
              }));
    EXPECT_EQ(treeText(), (Lines{
                              "packets=0 oska=0",
                              "port 7500",
                              " net 239.1.1.1",
                              "  host 10.0.0.1:7001 epoch=80000001 lastSeq=9 reliability=0.5",
                              "  host 10.0.0.3:7001 epoch=80000001 lastSeq=1",
                              "  subject A.B",
                              "   from 10.0.0.1:7001",
                              "  subject _PM.INFO.SYSTEM.HOST.x",
                              "   from 10.0.0.3:7001",
                              " rl 10.0.0.1:7001",
                              " rl 239.1.1.1:7500",
                              " ptp 10.0.0.1:7001",
                              " ptp 10.0.0.2:7500",
                          }));
    EXPECT_EQ(take(), Lines{kHead + "packets=0 oska=0"});
}

TEST(Snapshot, ShowsOnlyWhatIsLive) {
    TraceRun run;
    const PacketHead other = {.srcIp = ipv4(10, 0, 0, 9)};
    const PacketHead otherNet = {.dstIp = ipv4(239, 1, 1, 2)};
    const PacketHead otherPort = {.dstPort = 7600};
    analyze({data({}, "A"), data(other, "A"), data(otherNet, "A"), data(otherPort, "A"),
             rreqPacket({}, 1), rreqPacket(other, 1), nullPacket({}, 7.0)});
    (void)take();

    // What was known of the sender lasts: 4 were missed, its reliability holds.
    analyze({data({.seq = 6}, "A")});
    EXPECT_EQ(takeBody(), (Lines{"port 7500", " net 239.1.1.1",
                                 "  host 10.0.0.1:7001 gaps=4 data=1 bytes=21 reliability=7",
                                 "  subject A", "   from 10.0.0.1:7001 msgs=1 bytes=21"}));
    analyze({rreqPacket(other, 1)});
    EXPECT_EQ(takeBody(), (Lines{"port 7500", " rl 10.0.0.9:7001 rreqSent=1 rseqSent=1",
                                 " rl 239.1.1.1:7500 rreqRecv=1 rseqRecv=1"}));
    // A cut packet makes a row of zeros.
    analyze({cut(data(otherPort), kOskaAt + 20)});
    EXPECT_EQ(takeBody(), (Lines{"port 7600", " net 239.1.1.1", "  host 10.0.0.1:7001"}));
    EXPECT_EQ(takeBody(), Lines());
}

TEST(Snapshot, SweepsSubjectsThatFellSilentUnderALivePort) {
    TraceRun run;
    const auto subjects = [] {
        Lines lines;
        for (const std::string& line : treeText()) {
            if (line.starts_with("  subject")) lines.push_back(line.substr(10));
        }
        return lines;
    };
    const PacketHead otherNet = {.dstIp = ipv4(239, 1, 1, 2)};
    const PacketHead otherNetNext = {.dstIp = ipv4(239, 1, 1, 2), .seq = 2};
    uint32_t seq = 0;
    analyze({data({.seq = ++seq}, "A"), data({.seq = ++seq}, "B"), data({.seq = ++seq}, "C"),
             data(otherNet, "D"), data(otherNetNext, "E")});
    (void)take();
    EXPECT_EQ(subjects(), (Lines{"A", "B", "C", "D", "E"}));

    // Nothing under the port moves: its nets aren't looked at.
    analyze({data({.dstPort = 7600}, "F")});
    (void)take();
    EXPECT_EQ(subjects(), (Lines{"A", "B", "C", "D", "E", "F"}));

    // One net moves, and the silent one loses all of its subjects.
    analyze({data({.seq = ++seq}, "B")});
    (void)take();
    EXPECT_EQ(subjects(), (Lines{"B", "F"}));

    // One that returns begins anew.
    analyze({data({.seq = ++seq}, "A")});
    EXPECT_EQ(takeBody(),
              (Lines{"port 7500", " net 239.1.1.1", "  host 10.0.0.1:7001 data=1 bytes=21",
                     "  subject A", "   from 10.0.0.1:7001 msgs=1 bytes=21"}));
    EXPECT_EQ(subjects(), (Lines{"A", "F"}));

    // Point-to-point traffic makes the port live too.
    analyze({ptpDataPacket({.dstIp = ipv4(10, 0, 0, 2)}, {1})});
    (void)take();
    EXPECT_EQ(subjects(), Lines{"F"});
}

TEST(Snapshot, KeepsSilentHostsOfALiveSubject) {
    TraceRun run;
    analyze({data({}, "A"), data({.srcIp = ipv4(10, 0, 0, 9)}, "A")});
    (void)take();
    analyze({data({.seq = 2}, "A")});
    EXPECT_EQ(takeBody().back(), "   from 10.0.0.1:7001 msgs=1 bytes=21");
    EXPECT_EQ(treeText().back(), "   from 10.0.0.9:7001");
}

TEST(Snapshot, SweepsFromAnyPlace) {
    for (unsigned keep = 0; keep < 64; ++keep) {
        TraceRun run;
        Lines expected;
        for (uint32_t round = 0; round < 2; ++round) {
            for (unsigned i = 0; i < 6; ++i) {
                if (round == 1 && (keep >> i & 1) == 0) continue;
                const std::string name(1, static_cast<char>('A' + i));
                analyze({data({.seq = round * 6 + i + 1}, name.c_str())});
                if (round == 1) expected.push_back("  subject " + name);
            }
            if (round == 1) analyze({nullPacket({}, {})});
            (void)take();
        }
        Lines left;
        for (const std::string& line : treeText()) {
            if (line.starts_with("  subject")) left.push_back(line);
        }
        EXPECT_EQ(left, expected) << keep;
    }
}

// Areas of one block: one that is sized or sliced wrongly shows in another's records.
TEST(Snapshot, KeepsTheRecordsOfSeveralPortsAndNetsApart) {
    TraceRun run;
    Lines expected;
    for (const uint16_t port : {uint16_t{7500}, uint16_t{7600}}) {
        expected.push_back("port " + std::to_string(port));
        for (uint8_t net = 1; net <= 3; ++net) {
            const PacketHead head = {.dstIp = ipv4(239, 0, 0, net), .dstPort = port};
            const Bytes first = busMessage("A.B"),
                        status = busMessage("_PM.INFO.SYSTEM.HOST.x", net);
            const Bytes both = joined({first, status});
            analyze({dataPacket(head, both), ptpDataPacket(head, {1})});
            const auto msgs = [](const Bytes& bytes) {
                return "   from 10.0.0.1:7001 msgs=1 bytes=" + std::to_string(bytes.size());
            };
            const Lines lines = {" net 239.0.0." + std::to_string(net),
                                 "  host 10.0.0.1:7001 data=1 bytes=" + std::to_string(both.size()),
                                 "  subject A.B",
                                 msgs(first),
                                 "  subject _PM.INFO.SYSTEM.HOST.x",
                                 msgs(status),
                                 "  message " + hexText(status)};
            expected.insert(expected.end(), lines.begin(), lines.end());
        }
        expected.push_back(" ptp 10.0.0.1:7001 dataSent=3 bytesSent=3");
        for (int net = 1; net <= 3; ++net) {
            expected.push_back(" ptp 239.0.0." + std::to_string(net) + ":" + std::to_string(port) +
                               " dataRecv=1 bytesRecv=1");
        }
    }
    EXPECT_EQ(takeBody(), expected);
}

void feedHosts(uint32_t count, uint32_t seq) {
    for (uint32_t i = 0; i < count; ++i) {
        analyze({data({.srcIp = ipv4(10, 1, 0, 0) + i, .seq = seq})});
    }
}

TEST(Snapshot, GrowsToItsSizeAndFallsBackByHalves) {
    TraceRun run;
    EXPECT_EQ(snapshotStorageCapacity(), 32768u);
    const size_t rest = sizeof(SnapHeader) + sizeof(SnapPort) + sizeof(SnapNet);
    const auto hosts = static_cast<uint32_t>((32768 - rest) / sizeof(SnapHost));
    size_t capacity = rest + (hosts + 1) * sizeof(SnapHost);
    const struct {
        uint32_t hosts;
        size_t capacity;
    } steps[] = {
        {hosts, 32768},
        {hosts + 1, capacity},
        {hosts / 2 + 1, capacity},
        {hosts / 2 - 1, capacity / 2},
    };
    uint32_t seq = 0;
    for (const auto& step : steps) {
        feedHosts(step.hosts, ++seq);
        (void)take();
        EXPECT_EQ(snapshotStorageCapacity(), step.capacity) << step.hosts;
    }
    for (capacity /= 2; sizeof(SnapHeader) < capacity / 2;) {
        EXPECT_EQ(take().size(), 1u);
        capacity /= 2;
        EXPECT_EQ(snapshotStorageCapacity(), capacity);
    }
    EXPECT_EQ(take().size(), 1u);
    EXPECT_EQ(snapshotStorageCapacity(), capacity);
    feedHosts(3, ++seq);
    EXPECT_EQ(take().size(), 6u);
}

TEST(Snapshot, HalvesOnlyBelowHalf) {
    TraceRun run;
    for (const auto& [sizeBytes, capacity] : {std::pair{16384u, 32768u}, {16383u, 16384u}}) {
        EXPECT_NE(snapshotStorage(sizeBytes), nullptr);
        EXPECT_EQ(snapshotStorageCapacity(), capacity);
    }
}

TEST(Snapshot, AllocatesNothingInTheSteadyState) {
    TraceRun run;
    for (uint32_t seq = 1; seq < 4; ++seq) {
        feedHosts(500, seq);
        const FailAlloc fail{.after = seq == 1 ? kNeverFails : 0, .forGood = true};
        EXPECT_NE(snapshotTake({}), nullptr);
        EXPECT_EQ(allocationsFailed(), 0u);
    }
}

TEST(Snapshot, CoversBothIntervalsAfterOneThatFoundNoMemory) {
    TraceRun run;
    snapshotSetStart({1, 0});
    analyze({data({}, "A"), data({.seq = 2}, "B")});
    (void)take(2);
    feedHosts(1000, 2);
    analyze({data({.seq = 3}, "B")});
    const Lines before = treeText();
    {
        const FailAlloc fail{.after = 0};
        EXPECT_EQ(snapshotTake({3, 0}), nullptr);
        EXPECT_EQ(allocationsFailed(), 1u);
    }
    EXPECT_EQ(run.logged(), Lines{"Out of memory allocating snapshot storage"});
    Lines swept = before;
    const auto gone = std::find(swept.begin(), swept.end(), "  subject A");
    ASSERT_NE(gone, swept.end());
    swept.erase(gone, gone + 2);
    EXPECT_EQ(treeText(), swept);

    analyze({data({.seq = 4}, "B")});
    const Lines text = take(4);
    EXPECT_EQ(text[0], "2.000000000 to 4.000000000 packets=1002 oska=1002");
    EXPECT_EQ(text[3], "  host 10.0.0.1:7001 data=2 bytes=42");
    EXPECT_EQ(text.size(), 3u + 1001 + 2);
    EXPECT_EQ(text.back(), "   from 10.0.0.1:7001 msgs=2 bytes=42");
}

TEST(Snapshot, KeepsABlockThatCantShrink) {
    TraceRun run;
    {
        const FailAlloc fail{.after = 0};
        EXPECT_NE(snapshotTake({}), nullptr);
        EXPECT_EQ(allocationsFailed(), 1u);
    }
    EXPECT_EQ(snapshotStorageCapacity(), 32768u);
    EXPECT_EQ(run.logged(), Lines());
    (void)take();
    EXPECT_EQ(snapshotStorageCapacity(), 16384u);
}

}  // namespace
