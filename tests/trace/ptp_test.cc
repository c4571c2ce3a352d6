#include "trace/ptp.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

const std::string kSource = "10.0.0.1:7001 live";
const std::string kDestination = "10.0.0.2:7500 live";
const PacketHead kToHost = {.dstIp = ipv4(10, 0, 0, 2)};

struct TypeCase {
    std::string word, headerWord;
    Bytes packet;
    size_t headerBytes;
    std::string sent, recv;
};

std::vector<TypeCase> types() {
    return {
        {"ptp data", "data", ptpDataPacket(kToHost, Bytes(5)), 32, " dataSent=1 bytesSent=5",
         " dataRecv=1 bytesRecv=5"},
        {"ptp ackme", "ackme", oskaPacket(kToHost, 7, {}), 24, " ackmeSent=1", " ackmeRecv=1"},
        {"ptp ack", "ack", oskaPacket(kToHost, 8, {}), 24, " ackSent=1", " ackRecv=1"},
        {"ptp nak", "nak", oskaPacket(kToHost, 9, {}), 24, " nakSent=1", " nakRecv=1"},
    };
}

TEST(Ptp, CountsByTypeOnceTheHeaderIsInHand) {
    for (const TypeCase& c : types()) {
        const Outcome counted = pairOutcome("ptp", kSource + c.sent, kDestination + c.recv);
        EXPECT_EQ(outcomeOf({c.packet}), counted);
        EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + c.headerBytes)}), counted);

        const Lines told = {"OSKA " + c.word + " packet too small for " + c.headerWord +
                            " header from 10.0.0.1"};
        for (size_t oskaBytes = 0; oskaBytes < c.headerBytes; ++oskaBytes) {
            SCOPED_TRACE(c.word + " of " + std::to_string(oskaBytes));
            EXPECT_EQ(outcomeOf({claimed(c.packet, oskaBytes)}),
                      pairOutcome("ptp", kSource + " badSent=1", kDestination, told));
            if (oskaBytes < 20) continue;  // isn't even classified
            EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + oskaBytes)}),
                      pairOutcome("ptp", kSource, kDestination));
        }
    }
}

TEST(Ptp, TellsWhatIsWrongAndCountsItAllTheSame) {
    const struct {
        size_t offset;
        Bytes patch;
        std::string text;  // none: no fault
    } cases[] = {
        {4, be32(0), "invalid oska src (00000000)"},
        {4, be32(0xffffffff), "invalid oska src (ffffffff)"},
        {4, be32(ipv4(224, 0, 0, 1)), ""},
        {12, be32(0), "invalid oska dst (00000000/0200000a)"},
        {12, be32(ipv4(224, 0, 0, 1)), "invalid oska dst (010000e0/0200000a)"},
        {15, {3}, "invalid oska dst (0300000a/0200000a)"},
    };
    for (const TypeCase& c : types()) {
        for (const auto& [offset, patch, text] : cases) {
            SCOPED_TRACE(c.word + " " + text);
            const bool bad = !text.empty();
            const Lines told = {"OSKA " + c.word + " packet with " + text + " from 10.0.0.1"};
            EXPECT_EQ(outcomeOf({sealed(patched(c.packet, kOskaAt + offset, patch))}),
                      pairOutcome("ptp", kSource + (bad ? " badSent=1" : "") + c.sent,
                                  kDestination + (bad ? " badRecv=1" : "") + c.recv,
                                  bad ? told : Lines{}));
        }
    }
}

TEST(Ptp, ChecksTheDataLength) {
    const std::string larger = "OSKA ptp data packet larger than UDP payload from 10.0.0.1";
    const auto invalid = [](int number) {
        return "OSKA ptp data packet with invalid length (" + std::to_string(number) +
               ") from 10.0.0.1";
    };
    const struct {
        uint16_t length;
        int bytes;
        std::string told;
        bool evenWhenCut;
    } cases[] = {
        {5, 5, "", true},
        {1, 1, "", true},
        {6, 6, larger, false},
        {0x7fff, 32767, larger, false},
        {0, 0, invalid(0), true},
        {0xffff, 0, invalid(-1), true},
        {0x8000, 0, invalid(-32768), true},
    };
    for (const auto& [length, bytes, told, evenWhenCut] : cases) {
        SCOPED_TRACE(length);
        const Bytes packet =
            sealed(patched(ptpDataPacket(kToHost, Bytes(5)), kOskaAt + 28, be16(length)));
        for (const bool isCut : {false, true}) {
            const bool bad = !told.empty() && (!isCut || evenWhenCut);
            const auto counted = [bytes = bytes, bad](const std::string& side) {
                const std::string sum = " bytes" + side + "=" + std::to_string(bytes);
                return (bad ? " bad" + side + "=1" : "") + " data" + side + "=1" +
                       (bytes != 0 ? sum : "");
            };
            EXPECT_EQ(outcomeOf({isCut ? cut(packet, packet.size() - 1) : packet}),
                      pairOutcome("ptp", kSource + counted("Sent"), kDestination + counted("Recv"),
                                  bad ? Lines{told} : Lines{}));
        }
    }
}

TEST(Ptp, IsBadOnceHoweverMuchIsWrong) {
    const Bytes wrong = oskaPacket({.dstIp = ipv4(10, 0, 0, 2), .src = 0, .dst = 0}, 6, Bytes(8));
    const Lines told = {
        "OSKA packet without UDP checksum from 10.0.0.1",
        "OSKA ptp data packet with invalid oska src (00000000) from 10.0.0.1",
        "OSKA ptp data packet with invalid oska dst (00000000/0200000a) from 10.0.0.1",
        "OSKA ptp data packet with invalid length (0) from 10.0.0.1",
    };
    EXPECT_EQ(outcomeOf({patched(wrong, kUdpChecksumAt, be16(0))}),
              pairOutcome("ptp", kSource + " badSent=1 dataSent=1",
                          kDestination + " badRecv=1 dataRecv=1", told));
}

// One host, seen as a source without SCid and as a destination.
TEST(Ptp, KeepsARecordForEachRoleOfAHost) {
    const PacketHead there = {.dstIp = ipv4(10, 0, 0, 2), .epoch = 1};
    const PacketHead back = {.srcIp = ipv4(10, 0, 0, 2), .dstIp = ipv4(10, 0, 0, 1), .epoch = 1};
    const Lines tree = {
        "packets=2 oska=2",
        "port 7500 live",
        " ptp 10.0.0.1:0 live ackmeSent=1",
        " ptp 10.0.0.1:7500 live ackRecv=1",
        " ptp 10.0.0.2:0 live ackSent=1",
        " ptp 10.0.0.2:7500 live ackmeRecv=1",
    };
    EXPECT_EQ(outcomeOf({oskaPacket(there, 7, {}), oskaPacket(back, 8, {})}), (Outcome{tree, {}}));
}

}  // namespace
