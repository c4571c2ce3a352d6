#include "trace/retrans.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

const std::string kSource = "10.0.0.1:7001 live";
const std::string kDestination = "239.1.1.1:7500 live";

Bytes rrej(const PacketHead& head = {}) {
    return oskaPacket(head, 5, {});
}

TEST(Retrans, LooksAtAHeaderOnlyWhenItIsInHand) {
    const struct {
        std::string word;
        Bytes packet;
        std::string sent, recv;
    } cases[] = {
        {"rreq", rreqPacket({}, 2), " rreqSent=1 rseqSent=2", " rreqRecv=1 rseqRecv=2"},
        {"rrej", rrej(), " rrejSent=1", " rrejRecv=1"},
    };
    for (const auto& [word, packet, sent, recv] : cases) {
        const Lines told = {"OSKA " + word + " packet too small for " + word +
                            " header from 10.0.0.1"};
        for (size_t oskaBytes = 0; oskaBytes < 24; ++oskaBytes) {
            SCOPED_TRACE(word + " of " + std::to_string(oskaBytes));
            EXPECT_EQ(outcomeOf({claimed(packet, oskaBytes)}),
                      pairOutcome("rl", kSource + " badSent=1", kDestination, told));
            if (oskaBytes < 20) continue;  // isn't even classified
            EXPECT_EQ(outcomeOf({cut(packet, kOskaAt + oskaBytes)}),
                      pairOutcome("rl", kSource, kDestination));
        }
        EXPECT_EQ(outcomeOf({packet}), pairOutcome("rl", kSource + sent, kDestination + recv));
        EXPECT_EQ(outcomeOf({cut(packet, kOskaAt + 24)}),
                  pairOutcome("rl", kSource + sent, kDestination + recv));
    }
}

TEST(Retrans, TellsWhatIsWrongAndCountsItAllTheSame) {
    const struct {
        size_t offset;
        Bytes patch;
        std::string inRreq, inRrej;  // none: no fault
    } cases[] = {
        {4, be32(0), "invalid oska src (00000000)", "invalid oska src (00000000)"},
        {4, be32(0xffffffff), "invalid oska src (ffffffff)", "invalid oska src (ffffffff)"},
        {12, be32(0), "invalid oska dst (00000000)", ""},
        {12, be32(0xffffffff), "invalid oska dst (ffffffff)", "invalid oska dst (ffffffff)"},
        {12, be32(ipv4(10, 0, 0, 2)), "", "invalid oska dst (0200000a)"},
        {12, be32(ipv4(224, 0, 0, 0)), "", ""},
    };
    for (const auto& [offset, patch, inRreq, inRrej] : cases) {
        SCOPED_TRACE(inRreq + "/" + inRrej);
        const auto told = [](const std::string& word, const std::string& text) {
            return text.empty() ? Lines{}
                                : Lines{"OSKA " + word + " packet with " + text + " from 10.0.0.1"};
        };
        EXPECT_EQ(
            outcomeOf({sealed(patched(rreqPacket({}, 1), kOskaAt + offset, patch))}),
            pairOutcome(
                "rl", kSource + (inRreq.empty() ? "" : " badSent=1") + " rreqSent=1 rseqSent=1",
                kDestination + (inRreq.empty() ? "" : " badRecv=1") + " rreqRecv=1 rseqRecv=1",
                told("rreq", inRreq)));
        EXPECT_EQ(outcomeOf({sealed(patched(rrej(), kOskaAt + offset, patch))}),
                  pairOutcome("rl", kSource + (inRrej.empty() ? "" : " badSent=1") + " rrejSent=1",
                              kDestination + (inRrej.empty() ? "" : " badRecv=1") + " rrejRecv=1",
                              told("rrej", inRrej)));
    }
}

TEST(Retrans, CountsTheItemsThatTheListShouldHave) {
    const std::string larger = "OSKA rreq packet larger than UDP payload from 10.0.0.1";
    const auto invalid = [](int32_t number) {
        return "OSKA rreq packet with invalid length (" + std::to_string(number) +
               ") from 10.0.0.1";
    };
    const struct {
        int32_t listBytes;
        uint32_t items;
        std::string told;
        bool evenWhenCut;
    } cases[] = {
        {8, 2, "", true},
        {4, 1, "", true},
        {12, 3, larger, false},
        {0x7ffffffc, 536870911, larger, false},
        {6, 1, invalid(6), true},
        {3, 0, invalid(3), true},
        {0x7fffffff, 536870911, invalid(0x7fffffff), true},
        {0, 0, invalid(0), true},
        {-4, 0, invalid(-4), true},
        {INT32_MIN, 0, invalid(INT32_MIN), true},
    };
    for (const auto& [listBytes, items, told, evenWhenCut] : cases) {
        SCOPED_TRACE(listBytes);
        const Bytes packet = sealed(
            patched(rreqPacket({}, 2), kOskaAt + 20, be32(static_cast<uint32_t>(listBytes))));
        for (const bool isCut : {false, true}) {
            const bool bad = !told.empty() && (!isCut || evenWhenCut);
            const auto counted = [items = items, bad](const std::string& side) {
                const std::string seqs = " rseq" + side + "=" + std::to_string(items);
                return (bad ? " bad" + side + "=1" : "") + " rreq" + side + "=1" +
                       (items != 0 ? seqs : "");
            };
            EXPECT_EQ(outcomeOf({isCut ? cut(packet, packet.size() - 1) : packet}),
                      pairOutcome("rl", kSource + counted("Sent"), kDestination + counted("Recv"),
                                  bad ? Lines{told} : Lines{}));
        }
    }
}

TEST(Retrans, CountsBothSidesInOneRecordWhereTheyAreTheSame) {
    const PacketHead self = {.srcPort = 7500, .dstIp = ipv4(10, 0, 0, 1)};
    const Lines head = {"packets=1 oska=1", "port 7500 live"};
    const std::string record = " rl 10.0.0.1:7500 live";
    EXPECT_EQ(outcomeOf({rreqPacket(self, 3)}).tree,
              (Lines{head[0], head[1], record + " rreqSent=1 rreqRecv=1 rseqSent=3 rseqRecv=3"}));
    EXPECT_EQ(outcomeOf({patched(rrej(self), kUdpChecksumAt, be16(0))}).tree,
              (Lines{head[0], head[1], record + " badSent=1 badRecv=1 rrejSent=1 rrejRecv=1"}));
    EXPECT_EQ(outcomeOf({shortened(rrej(self), 20)}).tree,
              (Lines{head[0], head[1], record + " badSent=1"}));
}

TEST(Retrans, GivesASourceWithoutScidPortZero) {
    EXPECT_EQ(outcomeOf({rreqPacket({.epoch = 1}, 1)}),
              pairOutcome("rl", "10.0.0.1:0 live rreqSent=1 rseqSent=1",
                          kDestination + " rreqRecv=1 rseqRecv=1"));
}

}  // namespace
