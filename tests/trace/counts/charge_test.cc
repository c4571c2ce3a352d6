#include "trace/counts/charge.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/snapshot.h"
#include "trace/counts/statistics.h"
#include "trace/settings.h"

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
    while (statistics.subjectLines.slabCount <= kCachedSlabs) {
        charge(to, "fill." + std::to_string(to.subjects.count));
    }
}

// Messages and bytes by subject and the last octet of the host, without subjects filled in.
using Counts = std::map<std::string, std::pair<uint64_t, uint64_t>>;

Counts counted(const NetEntry& of) {
    Counts counts;
    for (uint32_t place = 0; place < of.subjects.count; ++place) {
        const SubjectEntry& subject = subjectAt(of.subjects, place);
        char text[kSubjectTextBytes];
        (void)subjectToText(text, sizeof text, packedSubject(subject));
        if (std::string(text).starts_with("fill.")) continue;
        for (const auto& [key, msgs, bytes] : sendersOf(subject)) {
            const uint32_t last = ntohl(hostKeyAddress(key)) & 0xff;
            counts[text + (" " + std::to_string(last))] = {msgs, bytes};
        }
    }
    return counts;
}

TEST(Charge, CountsAllThatWaitInTheirOrderAndToTheirNets) {
    TraceRun run;
    NetEntry* const nets[] = {&net(1), &net(2)};
    fill(*nets[0]);
    charge(*nets[0], "S.0", 1, 0);
    EXPECT_EQ(counted(*nets[0]), Counts{});
    Counts wanted[2] = {{{"S.0 1", {1, 0}}}, {}};
    for (uint32_t i = 0; i < 5 * kPipelineDepth + 3; ++i) {
        const std::string subject = "S." + std::to_string(i % 7);
        const auto host = static_cast<uint8_t>(1 + i % 3);
        charge(*nets[i % 2], subject, host, i);
        auto& [msgs, bytes] = wanted[i % 2][subject + " " + std::to_string(host)];
        ++msgs;
        bytes += i;
    }
    chargesSettle();
    EXPECT_EQ(statistics.charges.waiting, 0u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(counted(*nets[i]), wanted[i]);
    }
}

// Forged senders can be any number, and each must be found at once.
TEST(Charge, TellsApartAnyNumberOfSenders) {
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
    for (uint64_t i = 0; i < kSenders; ++i) {
        ASSERT_EQ(senders[i].key, i * 0x10001);
        ASSERT_EQ(senders[i].msgs, 2u);
        ASSERT_EQ(senders[i].bytes, 2 * i + kSenders);
    }
}

TEST(Charge, CountsSendersOnlyWhereSomebodyAsks) {
    TraceRun run;
    traceSettings.countSenders = false;
    charge(net(1), "A", 1, 5);
    charge(net(1), "A", 2, 7);
    EXPECT_EQ(counted(net(1)), Counts{});
    const SubjectEntry& subject = subjectAt(net(1).subjects, 0);
    EXPECT_EQ(std::pair(subject.msgs, subject.bytes), std::pair(uint64_t{2}, uint64_t{12}));
}

TEST(Charge, IsInTheSnapshotThatFollowsAndInNoOther) {
    TraceRun run;
    analyze({dataPacket({.seq = 1}, busMessage("first"))});
    NetEntry& many = net(1);
    fill(many);
    analyze({dataPacket({.seq = 2}, busMessage("late"))});
    ASSERT_EQ(statistics.charges.waiting, 1u);

    const auto messages = [](const SnapHeader& snapshot) {
        uint64_t sum = 0;
        const SnapNet& of = snapshot.ports[0].nets[0];
        for (uint32_t i = 0; i < of.subjectCount; ++i) {
            sum += of.subjects[i].hosts[0].msgs;
        }
        return sum;
    };
    const uint32_t filled = many.subjects.count;
    EXPECT_EQ(messages(*snapshotTake({1, 0})), filled + 1);
    // The next one sweeps out all that were silent from there on.
    analyze({dataPacket({.seq = 3}, busMessage("late"))});
    EXPECT_EQ(messages(*snapshotTake({2, 0})), 1u);
    EXPECT_EQ(many.subjects.count, 1u);
}

TEST(Charge, OneThatMemoryFailsIsToldAndTheOthersAreCounted) {
    TraceRun run;
    NetEntry& many = net(1);
    fill(many);
    charge(many, "A");
    charge(many, "B");
    charge(many, "C");
    {
        FailAlloc fail{.after = 1};
        chargesSettle();
    }
    EXPECT_EQ(counted(many), (Counts{{"A 1", {1, 10}}, {"C 1", {1, 10}}}));
    EXPECT_EQ(run.logged(), (Lines{"Out of memory creating subject host dictionary"}));
    charge(many, "B");
    chargesSettle();
    EXPECT_EQ(counted(many)["B 1"], (std::pair<uint64_t, uint64_t>{1, 10}));
}

TEST(Charge, OfStatisticsThatEndGoesWithThem) {
    {
        TraceRun run;
        NetEntry& many = net(1);
        fill(many);
        charge(many, "A");
    }
    TraceRun run;
    chargesSettle();
    EXPECT_EQ(counted(net(1)), Counts{});
}

}  // namespace
