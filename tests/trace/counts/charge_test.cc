#include "trace/counts/charge.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"

namespace {

NetEntry& net(uint8_t number) {
    return *netEntry(*portEntry(htons(7500)), htonl(ipv4(239, 1, 1, number)));
}

void charge(NetEntry& to, const std::string& subject, uint8_t host = 1, uint32_t bytes = 10) {
    const uint64_t sender = hostKey(htonl(ipv4(10, 0, 0, host)), 0);
    ASSERT_EQ(chargeMessage(to, sender, packedSubject(subject), bytes), ChargeResult::kDone);
}

// So many that charges wait from now on.
void fill(NetEntry& to) {
    while (statistics.subjectLines.slabCount <= kCachedSlabs)
        charge(to, "fill." + std::to_string(to.subjects.count));
}

// Messages and bytes by subject and the last octet of the host, without subjects filled in.
using Counts = std::map<std::string, std::pair<uint64_t, uint64_t>>;

Counts counted(const SnapNet& net) {
    Counts counts;
    for (const SnapSubject& subject : std::span(net.subjects, net.subjectCount)) {
        char text[kSubjectTextBytes];
        (void)subjectToText(text, sizeof text, subject.subject);
        if (std::string(text).starts_with("fill.")) continue;
        for (const SnapSubjectHost& host : std::span(subject.hosts, subject.hostCount))
            counts[text + (" " + std::to_string(ntohl(host.host) & 0xff))] = {host.msgs,
                                                                              host.bytes};
    }
    return counts;
}

TEST(Charges, WaitInTheirOrderAndAreCountedByTheNextSnapshot) {
    TraceRun run;
    analyze({nullPacket({.dstIp = ipv4(239, 1, 1, 1)}, {}),
             nullPacket({.dstIp = ipv4(239, 1, 1, 2)}, {})});
    NetEntry* const nets[] = {&net(1), &net(2)};
    fill(*nets[0]);
    Counts wanted[2];
    for (uint32_t i = 0; i < 5 * kPipelineDepth + 3; ++i) {
        const std::string subject = "S." + std::to_string(i % 7);
        const auto host = static_cast<uint8_t>(1 + i % 3);
        charge(*nets[i % 2], subject, host, i);
        auto& [msgs, bytes] = wanted[i % 2][subject + " " + std::to_string(host)];
        ++msgs;
        bytes += i;
    }
    EXPECT_NE(statistics.charges.waiting, 0u);
    const SnapPort& port = snapshotTake({1, 0})->ports[0];
    ASSERT_EQ(port.netCount, 2u);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(counted(port.nets[i]), wanted[i]);
}

// Forged senders can be any number, and each must be found at once.
TEST(Charges, TellsApartAnyNumberOfSenders) {
    TraceRun run;
    NetEntry& to = net(1);
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
    return treeText();
}

// Feeds the first packet to a tree with one allocation after the other failing, until none does.
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
            const auto found = std::ranges::find(allowed, treeText());
            ASSERT_NE(found, allowed.end()) << logged[0];
            met = std::max(met, static_cast<size_t>(found - allowed.begin()));
            EXPECT_EQ(run->logged(), Lines());
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
    heldOnce.back() = "  held 1 in 48";
    expectShortages(first, second,
                    {recordsOf({second}), recordsOf({sealed(withoutSubject), second}), heldOnce});
    for (const Bytes& packet :
         {rreqPacket({}, 1), oskaPacket({.epoch = 1}, 5, {}), ptpDataPacket({}, {1})})
        expectShortages(packet, packet, {recordsOf({packet})});
}

}  // namespace
