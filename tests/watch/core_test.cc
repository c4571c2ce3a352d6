#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/base/sanitizer.h"
#include "tests/support/fail_alloc.h"
#include "tests/watch/snapshot_maker.h"
#include "trace/counts/snapshot_totals.h"
#include "watch/core/privileges.h"
#include "watch/core/span.h"
#include "watch/core/text.h"
#include "watch/core/totals.h"
#include "watch/json/json_writer.h"

namespace {

#ifndef PELMO_ADDRESS_SANITIZER  // whose check needs the calls

// In a child that was root: the number of the first call that isn't refused, from 1 on, or 0.
int firstCallLetThrough() {
    if (privilegesDrop() != kStatusSuccess) return 100;
    constexpr long kHighHalf = 1L << 32;  // a filter sees it, the kernel's call doesn't
    const long calls[][4] = {
        {SYS_socket, AF_PACKET, SOCK_RAW, 0},
        {SYS_socket, AF_PACKET | kHighHalf, SOCK_RAW, 0},
        {SYS_socket, AF_INET, SOCK_PACKET | SOCK_CLOEXEC, 0},
        {SYS_openat, AT_FDCWD, reinterpret_cast<long>("/dev/null"), O_WRONLY},
        {SYS_openat, AT_FDCWD, reinterpret_cast<long>("/dev/null"), O_RDONLY | O_TRUNC},
        {SYS_truncate, reinterpret_cast<long>("/dev/null"), 0, 0},
    };
    int number = 0;
    for (const auto& [call, first, second, third] : calls) {
        ++number;
        // A call that comes through and fails otherwise has another error.
        if (syscall(call, first, second, third) >= 0 || errno != EPERM) return number;
    }
    return syscall(SYS_socket, AF_INET, SOCK_STREAM, 0) >= 0 ? 0 : 101;
}

TEST(Privileges, OfRootLeaveNoPacketSocketAndNoOpeningForWriting) {
    if (geteuid() != 0) GTEST_SKIP() << "only root's calls are filtered";
    const pid_t child = fork();
    if (child == 0) _exit(firstCallLetThrough());
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

#endif

TEST(SafeText, IsCutAtACharactersEnd) {
    const std::pair<size_t, const char*> cases[] = {{1, ""},         {2, "a"},      {5, "a"},
                                                    {6, "a\\xff"},   {8, "a\\xff"}, {9, "a\\xff€"},
                                                    {20, "a\\xff€b"}};
    for (const auto& [sizeBytes, wanted] : cases) {
        std::string buffer(sizeBytes, '#');
        EXPECT_EQ(safeText("a\xff€b", buffer.data(), sizeBytes), wanted);
        EXPECT_EQ(buffer[std::strlen(wanted)], '\0');
    }
}

TEST(JsonBuffer, DropsAllWhereMemoryRunsOut) {
    SnapHeader snapshot{};
    const size_t failing = eachAllocationFails([&] {
        JsonBuffer buffer;
        for (int i = 0; i < 1000; ++i)
            jsonAppendObject(buffer, snapshot, &snapshot);
        const bool failed = allocationsFailed() != 0;
        allocationsHeal();
        EXPECT_EQ(buffer.failed, failed);
        EXPECT_TRUE(failed || buffer.text().size() > 1000000);
    });
    EXPECT_GT(failing, 2u);
}

constexpr int64_t kMs = 1'000'000;

TimeSpec stampOf(int64_t milliseconds) {
    return {static_cast<int32_t>(milliseconds / 1000),
            static_cast<uint32_t>(milliseconds % 1000 * kMs)};
}

TEST(SpanTake, LiveLengthsAreTheSteadyClocks) {
    const struct {
        const char* what;
        int64_t beginMs, endMs;  // stamps
        int64_t steadyMs, elapsedMs, stepMs;
    } steps[] = {{"first", 1000000, 1001000, 1500, 1000, 0},
                 {"slewed by less than a step", 1001000, 1002050, 2500, 1000, 0},
                 {"set back by an hour", 3602050, 3050, 3500, 1000, -3600000},
                 {"set forward, or slept", 3050, 64050, 4500, 1000, 60000},
                 {"the steady clock doesn't move", 64050, 64050, 4500, 0, 0}};
    SpanWatch watch;
    spanBegin(watch, 500 * kMs);
    for (const auto& [what, beginMs, endMs, steadyMs, elapsedMs, stepMs] : steps) {
        SnapHeader snapshot{};
        snapshot.prevTime = stampOf(beginMs);
        snapshot.thisTime = stampOf(endMs);
        const SnapSpan span = spanTake(watch, snapshot, steadyMs * kMs);
        EXPECT_EQ(span.elapsedNanoseconds, elapsedMs * kMs) << what;
        EXPECT_EQ(span.skippedNanoseconds, 0) << what;
        EXPECT_EQ(span.stepNanoseconds, stepMs * kMs) << what;
    }
}

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
        add(1, 300);
        (void)totalsSnapshot(totals);
        allocationsHeal();
        sumsAreExact();
        totalsFree(totals);
        added = 0;
    });
    EXPECT_GT(failing, 10u);
}

}  // namespace
