#include "trace/counts/host_status.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"

namespace {

const char* const kStatusSubject = "_PM.INFO.SYSTEM.HOST.x";

NetEntry& someNet() {
    PortEntry* port = portEntry(htons(7500));
    return *netEntry(*port, htonl(ipv4(239, 1, 1, 1)));
}

Lines messageLines(const Lines& all) {
    Lines messages;
    for (const std::string& line : all) {
        if (line.starts_with("  message ")) messages.push_back(line);
    }
    return messages;
}

std::string messageLine(const Bytes& bytes) {
    return "  message " + hexText(bytes);
}

TEST(HostStatus, KeepsMessagesBelowThePrefix) {
    const struct {
        const char* subject;
        bool held;
    } cases[] = {
        {"_PM.INFO.SYSTEM.HOST.x", true},   {"_PM.INFO.SYSTEM.HOST.x.y.z", true},
        {"_PM.INFO.SYSTEM.HOST.", true},  // an element without characters
        {"_PM.INFO.SYSTEM.HOST", false},    {"_PM.INFO.SYSTEM.HOSTS.x", false},
        {"_PM.INFO.SYSTEM.HOS.xyz", false}, {"_PM.INFO.SYSTEMS.HOST.x", false},
        {"_QM.INFO.SYSTEM.HOST.x", false},  {"A", false},
    };
    for (const auto& [subject, held] : cases) {
        SCOPED_TRACE(subject);
        TraceRun run;
        const Bytes bytes = busMessage(subject);
        analyze({dataPacket({}, bytes)});
        EXPECT_EQ(someNet().statusCount, held ? 1u : 0u);
        const SnapHeader* snapshot = snapshotTake({});
        ASSERT_NE(snapshot, nullptr);
        const Lines text = snapshotText(*snapshot);
        EXPECT_EQ(messageLines(text), held ? Lines{messageLine(bytes)} : Lines{});
        // It counts as ordinary traffic all the same.
        EXPECT_EQ(text[4], std::string("  subject ") + subject);
        EXPECT_EQ(text[5], "   from 10.0.0.1:7001 msgs=1 bytes=" + std::to_string(bytes.size()));
    }
}

TEST(HostStatus, KeepsMessagesInOrderAndAligned) {
    TraceRun run;
    Lines expected;
    std::vector<Bytes> packets;
    uint32_t used = 0;
    for (uint32_t i = 0; i < 60; ++i) {
        std::vector<Bytes> payload;
        for (uint32_t j = 0; j < 3; ++j) {
            payload.push_back(busMessage(kStatusSubject, (i * 3 + j) * 7));
            expected.push_back(messageLine(payload.back()));
            used += static_cast<uint32_t>(payload.back().size() + 3) / 4 * 4;
        }
        packets.push_back(dataPacket({.seq = i + 1}, joined(payload)));
    }
    analyze(packets);
    EXPECT_EQ(someNet().statusUsed, used);
    EXPECT_GE(someNet().statusCapacity, used);

    const SnapHeader* snapshot = snapshotTake({});
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(messageLines(snapshotText(*snapshot)), expected);
    const SnapNet& net = snapshot->ports[0].nets[0];
    for (uint32_t i = 0; i < net.statusMsgCount; ++i) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(net.statusMsgs[i]) % 4, 0u);
    }
}

TEST(HostStatus, HoldsEachIntervalsOwn) {
    TraceRun run;
    analyze({dataPacket({}, busMessage(kStatusSubject, 40))});
    ASSERT_NE(snapshotTake({}), nullptr);
    EXPECT_EQ(someNet().statusCount, 0u);
    EXPECT_EQ(someNet().statusUsed, 0u);

    // The area stays, so that the next interval's messages need no memory.
    const Bytes later = busMessage(kStatusSubject, 20);
    {
        const FailAlloc none{.after = 0, .forGood = true};
        analyze({dataPacket({.seq = 2}, later)});
        EXPECT_EQ(allocationsCounted(), 0u);
    }
    const SnapHeader* snapshot = snapshotTake({});
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(messageLines(snapshotText(*snapshot)), Lines{messageLine(later)});
    EXPECT_EQ(run.logged(), Lines());
}

}  // namespace
