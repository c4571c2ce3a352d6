#include "trace/counts/charge.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"

namespace {

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
