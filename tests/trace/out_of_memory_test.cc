// Each allocation on a packet's way made to fail, once and for good: what is told, what is counted,
// and that the next packet, with memory back, finds everything in order.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/fail_alloc.h"
#include "tests/support/trace_run.h"
#include "trace/counts/statistics.h"

namespace {

struct Shortage {
    const char* told;
    Lines tree;       // behind the packet that met it
    Lines treeAfter;  // behind the next one
};

// Feeds the first packet to a tree with one allocation after the other failing, until none does.
// Allocations of the same words count as one shortage.
void expectShortages(const std::vector<Bytes>& before,
                     const Bytes& first,
                     const Bytes& second,
                     bool forGood,
                     const std::vector<Shortage>& expected) {
    size_t shortage = 0;
    for (size_t after = 0;; ++after) {
        SCOPED_TRACE("allocation " + std::to_string(after) + (forGood ? " and all behind" : ""));
        TraceRun run;
        analyze(before);
        {
            const FailAlloc fail{.after = after, .forGood = forGood};
            analyze({first});
        }
        if (allocationsFailed() == 0) {
            EXPECT_EQ(run.logged(), Lines());
            break;
        }
        const Lines told = run.logged();
        ASSERT_EQ(told.size(), 1u);
        if (told[0] != expected.at(shortage).told) ++shortage;
        ASSERT_LT(shortage, expected.size()) << told[0];
        EXPECT_EQ(told[0], expected[shortage].told);
        EXPECT_EQ(treeText(), expected[shortage].tree);
        analyze({second});
        EXPECT_EQ(treeText(), expected[shortage].treeAfter);
        EXPECT_EQ(run.logged(), Lines());
    }
    EXPECT_EQ(shortage + 1, expected.size());
}

TEST(OutOfMemory, GivesUpWhatDataPacketsNeed) {
    const Bytes status = message({subjectField(packedSubject("_PM.INFO.SYSTEM.HOST.x"))});
    ASSERT_EQ(status.size(), 46u);
    const std::string subject = "  subject _PM.INFO.SYSTEM.HOST.x";
    const auto counted = [&subject](int packets, int lastSeq, int data, int msgs, int held) {
        const auto times46 = [](int count) { return std::to_string(count * 46); };
        Lines lines = {
            "packets=" + std::to_string(packets) + " oska=" + std::to_string(packets),
            "port 7500 live",
            " net 239.1.1.1 live",
            "  host 10.0.0.1:7001 live epoch=80000001 lastSeq=" + std::to_string(lastSeq) +
                " data=" + std::to_string(data) + " bytes=" + times46(data),
        };
        if (msgs > 0) {
            lines.push_back(subject + " live");
            lines.push_back("   from 10.0.0.1:7001 live msgs=" + std::to_string(msgs) +
                            " bytes=" + times46(msgs));
        }
        if (held > 0) lines.push_back("  held 1 in 48");
        return lines;
    };
    const Lines noPort = {"packets=1 oska=1"};
    const Lines noNet = {"packets=1 oska=1", "port 7500"};
    const Lines noHost = {"packets=1 oska=1", "port 7500", " net 239.1.1.1"};
    const Lines noSubject = counted(1, 1, 1, 0, 0);
    Lines noSender = noSubject;
    noSender.push_back(subject);
    const Lines onlySecond = counted(2, 2, 1, 1, 1);
    const Lines secondCharged = counted(2, 2, 2, 1, 1);

    const std::vector<Shortage> expected = {
        {"Out of memory allocating port entry", noPort, onlySecond},
        {"Out of memory creating net dictionary", noPort, onlySecond},
        {"Out of memory storing port entry", noPort, onlySecond},
        {"Out of memory allocating net entry", noNet, onlySecond},
        {"Out of memory storing net entry", noNet, onlySecond},
        {"Out of memory allocating host entry", noHost, onlySecond},
        {"Out of memory storing host entry", noHost, onlySecond},
        {"Out of memory storing subject entry", noSubject, secondCharged},
        {"Out of memory allocating subject entry", noSubject, secondCharged},
        {"Out of memory creating subject host dictionary", noSender, secondCharged},
        {"Out of memory allocating Host.status storage", counted(1, 1, 1, 1, 0),
         counted(2, 2, 2, 2, 1)},
    };
    for (const bool forGood : {false, true}) {
        expectShortages({}, dataPacket({}, status), dataPacket({.seq = 2}, status), forGood,
                        expected);
    }
}

// The 17th sender of a subject needs a longer array, and an index besides.
TEST(OutOfMemory, GivesUpWhatTheNextSenderOfASubjectNeeds) {
    const Bytes bytes = message({subjectField(packedSubject("A"))});
    const auto packet = [&bytes](uint32_t sender, uint32_t seq) {
        return dataPacket({.srcIp = ipv4(10, 0, 0, 0) + sender, .seq = seq}, bytes);
    };
    std::vector<Bytes> before;
    Lines hosts, senders;
    for (uint32_t sender = 1; sender <= 16; ++sender) {
        before.push_back(packet(sender, 1));
        const std::string name = "10.0.0." + std::to_string(sender) + ":7001 live ";
        hosts.push_back("  host " + name + "epoch=80000001 lastSeq=1 data=1 bytes=21");
        senders.push_back("   from " + name + "msgs=1 bytes=21");
    }
    const auto tree = [&](const char* packets, const char* host, bool charged) {
        Lines lines = {packets, "port 7500 live", " net 239.1.1.1 live"};
        lines.insert(lines.end(), hosts.begin(), hosts.end());
        const std::string name = "10.0.0.17:7001 live ";
        if (host != nullptr) lines.push_back("  host " + name + "epoch=80000001 " + host);
        lines.push_back("  subject A live");
        lines.insert(lines.end(), senders.begin(), senders.end());
        if (charged) lines.push_back("   from " + name + "msgs=1 bytes=21");
        return lines;
    };
    const Lines noHost = tree("packets=17 oska=17", nullptr, false);
    const Lines onlyLast = tree("packets=18 oska=18", "lastSeq=2 data=1 bytes=21", true);
    const Lines uncharged = tree("packets=17 oska=17", "lastSeq=1 data=1 bytes=21", false);
    const Lines lastCharged = tree("packets=18 oska=18", "lastSeq=2 data=2 bytes=42", true);
    const std::vector<Shortage> expected = {
        {"Out of memory allocating host entry", noHost, onlyLast},
        {"Out of memory storing host entry", noHost, onlyLast},
        {"Out of memory allocating HostSubj entry", uncharged, lastCharged},
        {"Out of memory storing host subject entry", uncharged, lastCharged},
    };
    for (const bool forGood : {false, true}) {
        expectShortages(before, packet(17, 1), packet(17, 2), forGood, expected);
    }
}

TEST(OutOfMemory, GivesUpWhatPacketsBetweenTwoHostsNeed) {
    const struct {
        Bytes packet;
        std::string kind, sent, recv;
    } cases[] = {
        {rreqPacket({}, 1), "rl", " rreqSent=1 rseqSent=1", " rreqRecv=1 rseqRecv=1"},
        {oskaPacket({.epoch = 1}, 5, {}), "rl", " rrejSent=1", " rrejRecv=1"},
        {ptpDataPacket({}, {1}), "ptp", " dataSent=1 bytesSent=1", " dataRecv=1 bytesRecv=1"},
    };
    for (const auto& [packet, kind, sent, recv] : cases) {
        const std::string source = kind == "rl" && sent == " rrejSent=1" ? ":0" : ":7001";
        const std::string sender = " " + kind + " 10.0.0.1" + source;
        const Lines noPort = {"packets=1 oska=1"};
        const Lines noSource = {"packets=1 oska=1", "port 7500"};
        const Lines noDestination = {"packets=1 oska=1", "port 7500", sender};
        const Lines after = {"packets=2 oska=2", "port 7500 live", sender + " live" + sent,
                             " " + kind + " 239.1.1.1:7500 live" + recv};
        const std::vector<Shortage> expected = {
            {"Out of memory allocating port entry", noPort, after},
            {"Out of memory creating net dictionary", noPort, after},
            {"Out of memory storing port entry", noPort, after},
            {"Out of memory allocating ptp host entry", noSource, after},
            {"Out of memory storing ptp host entry", noSource, after},
            {"Out of memory allocating ptp host entry", noDestination, after},
        };
        for (const bool forGood : {false, true}) {
            expectShortages({}, packet, packet, forGood, expected);
        }
    }
}

Lines linesOf(const std::string& head) {
    Lines lines;
    for (const std::string& line : treeText()) {
        if (line.starts_with(head)) lines.push_back(line);
    }
    return lines;
}

// Every new record of a growing dictionary meets every failure that it can, then comes in. A
// failure that nobody is told of must have cost nothing.
TEST(OutOfMemory, LosesNothingWhileDictionariesGrow) {
    const struct {
        std::string head;  // of the lines that are compared
        uint32_t records;
        std::function<Bytes(uint32_t, uint32_t)> packet;  // of a record and a sequence number
    } cases[] = {
        {"port", 80,
         [](uint32_t i, uint32_t) {
             return nullPacket({.dstPort = static_cast<uint16_t>(i + 1)}, {});
         }},
        {" net", 40,
         [](uint32_t i, uint32_t) { return nullPacket({.dstIp = ipv4(239, 0, 0, 0) + i}, {}); }},
        {"  host", 600,
         [](uint32_t i, uint32_t) {
             return nullPacket({.srcPort = static_cast<uint16_t>(i + 1)}, {});
         }},
        {"  host", 600,
         [](uint32_t i, uint32_t) {
             return nullPacket({.srcIp = ipv4(10, 0, 0, 0) + i, .epoch = 1}, {});
         }},
        {" rl 10", 40,
         [](uint32_t i, uint32_t) { return rreqPacket({.srcIp = ipv4(10, 0, 0, 0) + i}, 1); }},
        {" ptp 10", 40,
         [](uint32_t i, uint32_t) { return ptpDataPacket({.srcIp = ipv4(10, 0, 0, 0) + i}, {1}); }},
        {"  subject", 600,
         [](uint32_t i, uint32_t seq) {
             return dataPacket({.seq = seq}, busMessage("A.B" + std::to_string(i)));
         }},
        {"   from", 600,
         [](uint32_t i, uint32_t seq) {
             const auto port = static_cast<uint16_t>(i + 1);
             return dataPacket({.srcPort = port, .seq = seq}, busMessage("A"));
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.head + " " + std::to_string(c.records));
        Lines expected;
        {
            TraceRun run;
            for (uint32_t i = 0; i < c.records; ++i) {
                analyze({c.packet(i, i + 1)});
            }
            expected = linesOf(c.head);
        }
        TraceRun run;
        uint32_t seq = 0;
        size_t told = 0;
        for (uint32_t i = 0; i < c.records; ++i) {
            for (size_t after = 0;; ++after) {
                const Bytes packet = c.packet(i, ++seq);
                {
                    const FailAlloc fail{.after = after};
                    analyze({packet});
                }
                const size_t lines = run.logged().size();
                told += lines;
                if (lines == 0) break;
            }
        }
        EXPECT_EQ(linesOf(c.head), expected);
        EXPECT_GE(told, c.records);  // each at least for its own memory
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
