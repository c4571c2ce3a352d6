// Each allocation on a packet's way made to fail, once and for good: what is told, what is counted,
// and that the next packet, with memory back, finds everything in order.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"

namespace {

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
    for (const bool forGood : {false, true}) {
        for (size_t after = 0;; ++after) {
            SCOPED_TRACE("allocation " + std::to_string(after) + (forGood ? " and all after" : ""));
            TraceRun run;
            {
                const FailAlloc fail{.after = after, .forGood = forGood};
                analyze({first});
            }
            const Lines logged = run.logged();
            if (allocationsFailed() == 0) break;
            ASSERT_EQ(logged.size(), 1u);
            EXPECT_TRUE(logged[0].starts_with("Out of memory ")) << logged[0];
            analyze({second});
            const auto found = std::ranges::find(allowed, treeText());
            ASSERT_NE(found, allowed.end()) << logged[0];
            met = std::max<size_t>(met, static_cast<size_t>(found - allowed.begin()));
            EXPECT_EQ(run.logged(), Lines());
        }
    }
    EXPECT_EQ(met, allowed.size() - 1);
}

// A packet whose records fail isn't counted at all; one whose subject fails isn't charged.
TEST(OutOfMemory, GivesUpWhatDataPacketsNeed) {
    const Bytes status = message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.x"))});
    const Bytes first = dataPacket({}, status), second = dataPacket({.seq = 2}, status);
    Bytes withoutSubject = first;
    const char name[] = {4, 's', 'u', 'b', 0};
    std::ranges::search(withoutSubject, name).begin()[1] = 'x';
    Lines heldOnce = recordsOf({first, second});
    heldOnce.back() = "  held 1 in 48";
    expectShortages(first, second,
                    {recordsOf({second}), recordsOf({sealed(withoutSubject), second}), heldOnce});
}

TEST(OutOfMemory, GivesUpWhatPacketsBetweenTwoHostsNeed) {
    const Bytes packets[] = {rreqPacket({}, 1), oskaPacket({.epoch = 1}, 5, {}),
                             ptpDataPacket({}, {1})};
    for (const Bytes& packet : packets) {
        expectShortages(packet, packet, {recordsOf({packet})});
    }
}

}  // namespace
