#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/charge.h"
#include "trace/counts/host_status.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/snapshot_storage.h"
#include "trace/counts/snapshot_totals.h"
#include "trace/counts/statistics.h"

namespace {

Bytes data(const PacketHead& head, const char* subject = nullptr) {
    return dataPacket(
        head, subject != nullptr ? message({subjectField(packedSubject(subject))}) : message({}));
}

const SnapHeader* take(int32_t seconds = 0) {
    return snapshotTake({seconds, 0});
}

// All that are kept, the silent ones too.
std::string keptSubjects() {
    std::set<std::string> found;
    eachRecord<PortEntry>(statistics.ports, [&](uint32_t, const PortEntry& port) {
        eachRecord<NetEntry>(port.nets, [&](uint32_t, const NetEntry& net) {
            for (uint32_t place = 0; place < net.subjects.count; ++place) {
                char text[kSubjectTextBytes];
                found.insert(subjectToText(text, sizeof text,
                                           packedSubject(subjectAt(net.subjects, place))));
            }
        });
    });
    std::string all;
    for (const std::string& subject : found)
        all += (all.empty() ? "" : " ") + subject;
    return all;
}

TEST(Snapshot, SweepsSubjectsThatFellSilentUnderALivePort) {
    TraceRun run;
    const uint32_t otherNet = ipv4(239, 1, 1, 2);
    const struct {
        const char* what;
        std::vector<Bytes> packets;
        std::string subjects;  // that are left
    } intervals[] = {
        {"all are live",
         {data({.seq = 1}, "A"), data({.seq = 2}, "B"), data({.dstIp = otherNet}, "D"),
          data({.dstIp = otherNet, .seq = 2}, "E")},
         "A B D E"},
        {"nothing under the port moves: its nets aren't looked at",
         {data({.dstPort = 7600}, "F")},
         "A B D E F"},
        {"one net moves, and the silent one loses all of its subjects",
         {data({.seq = 3}, "B")},
         "B F"},
        {"one returns", {data({.seq = 4}, "A")}, "A F"},
        {"point-to-point traffic moves the port",
         {ptpDataPacket({.dstIp = ipv4(10, 0, 0, 2)}, {1})},
         "F"},
    };
    for (const auto& [what, packets, subjects] : intervals) {
        analyze(packets);
        (void)take();
        EXPECT_EQ(keptSubjects(), subjects) << what;
    }
}

void feedHosts(uint32_t count, uint32_t seq) {
    for (uint32_t i = 0; i < count; ++i)
        analyze({data({.srcIp = ipv4(10, 1, 0, 0) + i, .seq = seq})});
}

TEST(Snapshot, GrowsToItsSizeAndFallsBackByHalves) {
    TraceRun run;
    const size_t rest = sizeof(SnapHeader) + sizeof(SnapPort) + sizeof(SnapNet);
    const size_t small = snapshotCapacity();
    const auto hosts = static_cast<uint32_t>((small - rest) / sizeof(SnapHost));
    const size_t large = rest + (hosts + 1) * sizeof(SnapHost);
    const auto few = static_cast<uint32_t>((large / 2 - 1 - rest) / sizeof(SnapHost));
    const std::pair<uint32_t, size_t> steps[] = {
        {hosts, small}, {hosts + 1, large}, {few + 1, large}, {few, large / 2}, {0, large / 4}};
    uint32_t seq = 0;
    for (const auto& [count, capacity] : steps) {
        feedHosts(count, ++seq);
        const bool isSteady = capacity == snapshotCapacity();
        const FailAlloc fail{.after = isSteady ? 0 : kNeverFails, .forGood = true};
        EXPECT_NE(take(), nullptr);
        EXPECT_EQ(allocationsFailed(), 0u);
        EXPECT_EQ(snapshotCapacity(), capacity) << count;
    }
}

struct PartSums {
    uint64_t packets = 0, data = 0, ptpData = 0, msgBytes = 0, statusMsgs = 0, records = 0;
    bool operator==(const PartSums&) const = default;
};

void addPart(PartSums& sums, const SnapHeader& part) {
    const SnapTotals totals = snapshotAddUp(part);
    sums.packets += part.packets;
    sums.data += totals.multicast.data;
    sums.ptpData += totals.pointToPoint.dataSent + totals.pointToPoint.dataRecv;
    sums.msgBytes += totals.subjects.bytes;
    for (const SnapPort& port : std::span(part.ports, part.portCount)) {
        sums.records += port.ptpHostCount;
        for (const SnapNet& net : std::span(port.nets, port.netCount)) {
            sums.records += net.hostCount + net.subjectCount;
            sums.statusMsgs += net.statusMsgCount;
        }
    }
}

void feedAllKinds(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t from = ipv4(10, 1, 0, 0) + i;
        const std::string subject = "S" + std::to_string(i);
        const auto port = static_cast<uint16_t>(7000 + i % 40);
        analyze({data({.srcIp = from, .dstIp = ipv4(239, 1, 1, 1) + i % 100, .dstPort = port},
                      subject.c_str()),
                 ptpDataPacket({.srcIp = from, .dstIp = ipv4(10, 0, 0, 2), .dstPort = port}, {1})});
        hostStatusStore(*netEntry(*portEntry(htons(port)), htonl(ipv4(239, 1, 1, 1) + i % 100)),
                        Bytes{0, 0, 0, 9, 1, 2, 3, 4, 5}.data(), 9);
    }
}

// A snapshot that finds no memory is made of as much as there is room for, and the next ones have
// the rest: each once.
TEST(Snapshot, IsTakenInPartsWhereMemoryRunsOut) {
    constexpr uint32_t kCount = 3000;
    PartSums whole;
    {
        TraceRun run;
        feedAllKinds(kCount);
        addPart(whole, *take(1));
    }
    EXPECT_EQ(whole.data, kCount);
    // The memory comes back after so many snapshots, or never.
    for (const int32_t returns : {1, 3, 1000}) {
        TraceRun run;
        snapshotSetStart({0, 0});
        feedAllKinds(kCount);
        PartSums sums;
        int32_t parts = 0;
        while (sums.records < whole.records && parts < 1000) {
            const FailAlloc fail{.after = parts < returns ? 0 : kNeverFails, .forGood = true};
            const size_t before = sums.records;
            const SnapHeader* part = take(++parts);
            ASSERT_NE(part, nullptr);
            EXPECT_EQ(part->prevTime, (TimeSpec{parts - 1, 0}));
            addPart(sums, *part);
            ASSERT_GT(sums.records, before);
        }
        EXPECT_EQ(sums, whole) << returns;
        EXPECT_GE(parts, std::min(returns + 1, 10));
        EXPECT_EQ(take(++parts)->portCount, 0u);
        EXPECT_EQ(statistics.live.subjects + statistics.live.senders, 0u);
        EXPECT_EQ(statistics.live.subjectBytes, 0u);
    }
}

// Forged senders can be any number, and each must be found at once.
TEST(Charges, TellsApartAnyNumberOfSenders) {
    TraceRun run;
    NetEntry& to = *netEntry(*portEntry(htons(7500)), htonl(ipv4(239, 1, 1, 1)));
    constexpr uint64_t kSenders = 100000;
    const Bytes subject = packedSubject("A");
    for (uint64_t i = 0; i < 2 * kSenders; ++i) {
        const uint64_t key = i % kSenders * 0x10001;
        ASSERT_EQ(chargeMessage(to, key, subject, static_cast<uint32_t>(i)), ChargeResult::kDone);
    }
    const std::span<const HostSubjEntry> senders = sendersOf(subjectAt(to.subjects, 0));
    ASSERT_EQ(senders.size(), kSenders);
    for (uint64_t i = 0; i < kSenders; ++i)
        ASSERT_TRUE(senders[i].key == i * 0x10001 && senders[i].msgs == 2 &&
                    senders[i].bytes == 2 * i + kSenders);
}

Lines recordsOf(const std::vector<Bytes>& packets) {
    TraceRun run;
    analyze(packets);
    return run.report();
}

// Feeds the first packet to a run with one allocation after the other failing, until none does.
// One line is logged, nothing half-made stays, and the next packet finds its records or makes them:
// what is there afterwards is one of `allowed`.
void expectShortages(const Bytes& first, const Bytes& second, const std::vector<Lines>& allowed) {
    size_t met = 0;
    std::optional<TraceRun> run(true);
    eachAllocationFails([&] {
        analyze({first});
        allocationsHeal();
        if (allocationsFailed() != 0) {
            const Lines logged = run->logged();
            ASSERT_EQ(logged.size(), 1u);
            EXPECT_TRUE(logged[0].starts_with("Out of memory ")) << logged[0];
            analyze({second});
            EXPECT_EQ(run->logged(), Lines());
            const auto found = std::ranges::find(allowed, run->report());
            ASSERT_NE(found, allowed.end()) << logged[0];
            met = std::max(met, static_cast<size_t>(found - allowed.begin()));
        }
        run.reset();
        run.emplace();
    });
    EXPECT_EQ(met, allowed.size() - 1);
}

// A packet whose records fail isn't counted at all; one whose subject fails isn't charged.
TEST(OutOfMemory, GivesUpWhatAPacketNeeds) {
    const Bytes status = message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.x"))});
    const Bytes first = dataPacket({}, status), second = dataPacket({.seq = 2}, status);
    Bytes withoutSubject = first;
    const char name[] = {4, 's', 'u', 'b', 0};
    std::ranges::search(withoutSubject, name).begin()[1] = 'x';
    Lines heldOnce = recordsOf({first, second});
    heldOnce.erase(std::ranges::find(heldOnce, "{sub=[_PM.INFO.SYSTEM.HOST.x]}"));
    expectShortages(first, second,
                    {recordsOf({second}), recordsOf({sealed(withoutSubject), second}), heldOnce});
    for (const Bytes& packet :
         {rreqPacket({}, 1), oskaPacket({.epoch = 1}, 5, {}), ptpDataPacket({}, {1})})
        expectShortages(packet, packet, {recordsOf({packet})});
}

}  // namespace
