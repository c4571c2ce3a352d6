// Each allocation on a packet's way made to fail, once and for good: what is told, what is counted,
// and that the next packet, with memory back, finds everything in order.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"

namespace {

Lines recordsOf(const std::vector<Bytes>& packets, const std::string& head = "") {
    TraceRun run;
    analyze(packets);
    return treeText(head);
}

// What is told, in the order of the allocations, and the records behind the next packet.
struct Shortages {
    Lines told;
    Lines records;
};

// Feeds the first packet to a tree with one allocation after the other failing, until none does.
// Allocations of the same words count as one shortage.
void expectShortages(const Bytes& first,
                     const Bytes& second,
                     bool forGood,
                     const std::vector<Shortages>& expected) {
    Lines toldInOrder, allTold;
    for (const Shortages& shortages : expected)
        allTold.insert(allTold.end(), shortages.told.begin(), shortages.told.end());
    for (size_t after = 0;; ++after) {
        SCOPED_TRACE("allocation " + std::to_string(after) + (forGood ? " and all behind" : ""));
        TraceRun run;
        {
            const FailAlloc fail{.after = after, .forGood = forGood};
            analyze({first});
        }
        const Lines told = run.logged();
        if (allocationsFailed() == 0) break;
        ASSERT_EQ(told.size(), 1u);
        if (toldInOrder.empty() || toldInOrder.back() != told[0]) toldInOrder.push_back(told[0]);
        const auto tells = [&told](const Shortages& one) {
            return std::ranges::count(one.told, told[0]);
        };
        const auto met = std::ranges::find_if(expected, tells);
        ASSERT_NE(met, expected.end()) << told[0];
        analyze({second});
        EXPECT_EQ(treeText(), met->records) << told[0];
        EXPECT_EQ(run.logged(), Lines());
    }
    EXPECT_EQ(toldInOrder, allTold);
}

// With a message of the same size that has no subject.
Bytes withoutSubject(const Bytes& packet) {
    Bytes changed = packet;
    const char name[] = {4, 's', 'u', 'b', 0};
    const auto at = std::search(changed.begin(), changed.end(), std::begin(name), std::end(name));
    at[1] = 'x';
    return sealed(changed);
}

Lines joined(Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

const Lines kPort = {"Out of memory allocating port entry", "Out of memory creating net dictionary",
                     "Out of memory storing port entry"};
const Lines kNet = {"Out of memory allocating net entry", "Out of memory storing net entry"};
const Lines kHost = {"Out of memory allocating host entry", "Out of memory storing host entry"};
const Lines kSubject = {"Out of memory storing subject entry",
                        "Out of memory allocating subject entry",
                        "Out of memory creating subject host dictionary"};
const Lines kTwoSided = {"Out of memory allocating ptp host entry",
                         "Out of memory storing ptp host entry",
                         "Out of memory allocating ptp host entry"};

// A packet whose records fail isn't counted at all; one whose subject fails isn't charged.
TEST(OutOfMemory, GivesUpWhatDataPacketsNeed) {
    const Bytes status = message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.x"))});
    const Bytes first = dataPacket({}, status), second = dataPacket({.seq = 2}, status);
    Lines heldOnce = recordsOf({first, second});
    heldOnce.back() = "  held 1 in 48";
    const std::vector<Shortages> expected = {
        {joined(joined(kPort, kNet), kHost), recordsOf({second})},
        {kSubject, recordsOf({withoutSubject(first), second})},
        {{"Out of memory allocating Host.status storage"}, heldOnce},
    };
    for (const bool forGood : {false, true})
        expectShortages(first, second, forGood, expected);
}

TEST(OutOfMemory, GivesUpWhatPacketsBetweenTwoHostsNeed) {
    const Bytes packets[] = {rreqPacket({}, 1), oskaPacket({.epoch = 1}, 5, {}),
                             ptpDataPacket({}, {1})};
    for (const Bytes& packet : packets) {
        const Lines told = joined(kPort, kTwoSided);
        for (const bool forGood : {false, true})
            expectShortages(packet, packet, forGood, {{told, recordsOf({packet})}});
    }
}

TEST(OutOfMemory, EndsTheStartUp) {
    const size_t failing = eachAllocationFails([] {
        const pelmoStatus status = statsInit();
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        allocationsHeal();
        statsDestroy();
    });
    EXPECT_GE(failing, 4u);  // the snapshot's storage and a dictionary, each way
}

}  // namespace
