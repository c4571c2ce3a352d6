#include "watch/core/totals.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/fail_alloc.h"
#include "tests/watch/snapshot_maker.h"
#include "trace/counts/snapshot_totals.h"

namespace {

struct TotalsTest : testing::Test {
    ~TotalsTest() override { totalsFree(totals); }

    // One interval: a group with so many senders from `first` on, each with a subject and a part in
    // the other tables.
    void add(uint16_t first, uint16_t count) {
        SnapshotMaker maker;
        for (uint16_t scid = first; scid < first + count; ++scid) {
            SnapHost& host = maker.host(7500, "239.1.1.1", "10.0.0.1", scid);
            host.data = 1;
            host.bytes = 10;
            host.reliability = 60;
            maker.retransmission(7500, "10.0.0.1", scid).rreqSent = 2;
            maker.pointToPoint(7500, "10.0.0.1", scid).ackSent = 3;
            maker.subject(7500, "239.1.1.1", {"S" + std::to_string(scid)}, "10.0.0.1", 4);
        }
        totalsAdd(totals, maker.at(10));
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
TEST_F(TotalsTest, IntervalsAddUpRowByRow) {
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
    for (uint32_t i = 0; i < net.hostCount; ++i) {
        const SnapHost& host = net.hosts[i];
        const uint16_t scid = ntohs(host.port);
        ASSERT_EQ(host.data, scid == 3 ? 3u : scid == 2 ? 2u : 1u) << scid;
        ASSERT_EQ(host.reliability, 60);
    }
}

TEST_F(TotalsTest, SumsStayExactBeyondTheBoundOfRows) {
    totals.mostRows = 1000;
    add(1, 600);
    add(601, 600);
    add(1, 1);
    sumsAreExact();
    EXPECT_EQ(totals.hosts.count, totals.mostRows);
    EXPECT_EQ(totals.subjects.count, totals.mostRows);
    EXPECT_EQ(totals.head.beyond.multicast.data, 200u);
}

TEST_F(TotalsTest, SumsStayExactWithoutMemory) {
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
