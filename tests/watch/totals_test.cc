#include "watch/core/totals.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/packet_builder.h"
#include "trace/counts/snapshot_totals.h"

namespace {

struct TotalsTest : testing::Test {
    ~TotalsTest() override { totalsFree(totals); }

    // One interval: a port with a net, so many senders from `first` on, each with a subject and a
    // part in the other tables.
    void add(uint32_t first, uint32_t count) {
        std::vector<SnapHost> hosts(count);
        std::vector<SnapRlHost> rlHosts(count);
        std::vector<SnapPtpHost> ptpHosts(count);
        std::vector<Bytes> texts(count);
        std::vector<SnapSubjectHost> senders(count);
        std::vector<SnapSubject> subjects(count);
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t host = first + i;
            hosts[i].host = rlHosts[i].host = ptpHosts[i].host = host;
            hosts[i].data = 1;
            hosts[i].bytes = 10;
            hosts[i].reliability = 60;
            rlHosts[i].counters.rreqSent = 2;
            ptpHosts[i].counters.ackSent = 3;
            texts[i] = packedSubject("S" + std::to_string(host));
            senders[i] = {host, 1, 4, 40};
            subjects[i] = {texts[i].data(), 4, 40, 1, &senders[i]};
        }
        SnapNet net{};
        net.net = 7;
        net.hostCount = net.subjectCount = count;
        net.hosts = hosts.data();
        net.subjects = subjects.data();
        SnapPort port{};
        port.port = port.servicePort = 9;
        port.netCount = 1;
        port.nets = &net;
        port.rlHostCount = port.ptpHostCount = count;
        port.rlHosts = rlHosts.data();
        port.ptpHosts = ptpHosts.data();
        SnapHeader snapshot{};
        snapshot.portCount = 1;
        snapshot.ports = &port;
        totalsAdd(totals, snapshot);
        added += count;
    }

    void sumsAreExact() {
        const SnapHeader* const sum = totalsSnapshot(totals);
        ASSERT_NE(sum, nullptr);
        const SnapTotals all = snapshotAddUp(*sum);
        EXPECT_EQ(all.multicast.data, added);
        EXPECT_EQ(all.multicast.bytes, 10 * added);
        EXPECT_EQ(all.retransmission.rreqSent, 2 * added);
        EXPECT_EQ(all.pointToPoint.ackSent, 3 * added);
        EXPECT_EQ(all.subjects.msgs, 4 * added);
    }

    Totals totals = {};
    uint64_t added = 0;
};

// An interval's rows meet those of earlier ones, whatever else there is.
TEST_F(TotalsTest, AddUpRowByRow) {
    add(1, 3);
    add(3, 1000);
    add(2, 2);
    sumsAreExact();
    const SnapHeader& sum = *totalsSnapshot(totals);
    ASSERT_EQ(sum.portCount, 1u);
    ASSERT_EQ(sum.ports[0].netCount, 1u);
    const SnapNet& net = sum.ports[0].nets[0];
    ASSERT_EQ(net.hostCount, 1002u);
    ASSERT_EQ(net.subjectCount, 1002u);
    const auto rowOf = [&net](uint32_t host) -> const SnapHost& {
        for (uint32_t i = 0; i < net.hostCount; ++i) {
            if (net.hosts[i].host == host) return net.hosts[i];
        }
        return net.hosts[0];
    };
    EXPECT_EQ(rowOf(3).data, 3u);
    EXPECT_EQ(rowOf(3).reliability, 60);
    EXPECT_EQ(rowOf(4).data, 1u);
    for (uint32_t i = 0; i < net.subjectCount; ++i) {
        const SnapSubject& subject = net.subjects[i];
        ASSERT_EQ(subject.hostCount, 1u);
        const Bytes text = packedSubject("S" + std::to_string(subject.hosts[0].host));
        ASSERT_EQ(std::memcmp(subject.subject, text.data(), text.size()), 0);
        ASSERT_EQ(subject.hosts[0].msgs, subject.msgs);
    }
}

TEST_F(TotalsTest, KeepTheirSumsBeyondTheBoundOfRows) {
    constexpr uint32_t kPieces = 8;
    for (uint32_t piece = 0; piece <= kPieces; ++piece) {
        add(piece * (kTotalsMostRows / kPieces), kTotalsMostRows / kPieces);
    }
    add(1, 1);
    sumsAreExact();
    EXPECT_EQ(totals.hosts.count, kTotalsMostRows);
    EXPECT_EQ(totals.subjects.count, kTotalsMostRows);
    EXPECT_EQ(totals.head.beyond.multicast.data, kTotalsMostRows / kPieces);
}

TEST_F(TotalsTest, KeepTheirSumsWithoutMemory) {
    const size_t failing = eachAllocationFails([this] {
        const size_t failedBefore = allocationsFailed();
        add(1, 300);
        (void)totalsSnapshot(totals);
        const bool failed = allocationsFailed() > failedBefore;
        allocationsHeal();
        if (failed) sumsAreExact();
        totalsFree(totals);
        added = 0;
    });
    EXPECT_GT(failing, 10u);
}

}  // namespace
