// The six types that count under a source and a destination: retransmission ("rl") and
// point-to-point ("ptp") packets.

#include "trace/packets/two_sided.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

const PacketHead kToHost = {.dstIp = ipv4(10, 0, 0, 2)};

struct TypeCase {
    std::string kind, word, headerWord;
    Bytes packet;
    size_t headerBytes;
    std::string sent, recv;

    // With so much more ahead of the counters of either side.
    [[nodiscard]] Outcome outcome(const std::string& sentCounters,
                                  const std::string& recvCounters,
                                  const Lines& logged = {}) const {
        const std::string destination = kind == "rl" ? "239.1.1.1:7500 live" : "10.0.0.2:7500 live";
        return pairOutcome(kind, "10.0.0.1:7001 live" + sentCounters, destination + recvCounters,
                           logged);
    }
};

const TypeCase kRreq = {"rl",
                        "rreq",
                        "rreq",
                        rreqPacket({}, 2),
                        24,
                        " rreqSent=1 rseqSent=2",
                        " rreqRecv=1 rseqRecv=2"};
const TypeCase kRrej = {"rl", "rrej",        "rrej",       oskaPacket({}, 5, {}),
                        24,   " rrejSent=1", " rrejRecv=1"};
const TypeCase kPtpData = {"ptp",
                           "ptp data",
                           "data",
                           ptpDataPacket(kToHost, Bytes(5)),
                           32,
                           " dataSent=1 bytesSent=5",
                           " dataRecv=1 bytesRecv=5"};
const TypeCase kAckme = {"ptp", "ptp ackme",    "ackme",       oskaPacket(kToHost, 7, {}),
                         24,    " ackmeSent=1", " ackmeRecv=1"};
const TypeCase kAck = {"ptp", "ptp ack",    "ack",       oskaPacket(kToHost, 8, {}),
                       24,    " ackSent=1", " ackRecv=1"};
const TypeCase kNak = {"ptp", "ptp nak",    "nak",       oskaPacket(kToHost, 9, {}),
                       24,    " nakSent=1", " nakRecv=1"};

TEST(TwoSided, CountsByTypeOnceTheHeaderIsInHand) {
    for (const TypeCase& c : {kRreq, kRrej, kPtpData, kAckme, kAck, kNak}) {
        EXPECT_EQ(outcomeOf({c.packet}), c.outcome(c.sent, c.recv));
        EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + c.headerBytes)}), c.outcome(c.sent, c.recv));

        const Lines told = {"OSKA " + c.word + " packet too small for " + c.headerWord +
                            " header from 10.0.0.1"};
        for (size_t oskaBytes = 0; oskaBytes < c.headerBytes; ++oskaBytes) {
            SCOPED_TRACE(c.word + " of " + std::to_string(oskaBytes));
            EXPECT_EQ(outcomeOf({claimed(c.packet, oskaBytes)}), c.outcome(" badSent=1", "", told));
            if (oskaBytes < 20) continue;  // isn't even classified
            EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + oskaBytes)}), c.outcome("", ""));
        }
    }
}

TEST(TwoSided, TellsWhatIsWrongAndCountsItAllTheSame) {
    const struct {
        size_t offset;
        Bytes patch;
        std::string inRreq, inRrej, inPtp;  // none: no fault
    } cases[] = {
        {4, be32(0), "src (00000000)", "src (00000000)", "src (00000000)"},
        {4, be32(0xffffffff), "src (ffffffff)", "src (ffffffff)", "src (ffffffff)"},
        {4, be32(ipv4(224, 0, 0, 1)), "", "", ""},
        {12, be32(0), "dst (00000000)", "", "dst (00000000/0200000a)"},
        {12, be32(0xffffffff), "dst (ffffffff)", "dst (ffffffff)", "dst (ffffffff/0200000a)"},
        {12, be32(ipv4(10, 0, 0, 2)), "", "dst (0200000a)", ""},
        {12, be32(ipv4(224, 0, 0, 0)), "", "", "dst (000000e0/0200000a)"},
    };
    for (const auto& [offset, patch, inRreq, inRrej, inPtp] : cases) {
        for (const TypeCase& c : {kRreq, kRrej, kPtpData, kAckme, kAck, kNak}) {
            const std::string text = c.word == "rreq" ? inRreq : c.word == "rrej" ? inRrej : inPtp;
            SCOPED_TRACE(c.word + " " + text);
            const bool bad = !text.empty();
            const Lines told = {"OSKA " + c.word + " packet with invalid oska " + text +
                                " from 10.0.0.1"};
            EXPECT_EQ(outcomeOf({sealed(patched(c.packet, kOskaAt + offset, patch))}),
                      c.outcome((bad ? " badSent=1" : "") + c.sent,
                                (bad ? " badRecv=1" : "") + c.recv, bad ? told : Lines{}));
        }
    }
}

// The length of an rreq's list and of ptp data, neither of which is believed. Where the capture cut
// the packet, what it holds can't be told.
TEST(TwoSided, CountsWhatADeclaredLengthIsWorth) {
    enum Fault { kNone, kLarger, kInvalid };
    const struct {
        const TypeCase& type;
        int32_t length;
        uint32_t counted;  // sequence numbers or bytes
        Fault fault;
    } cases[] = {
        {kRreq, 8, 2, kNone},
        {kRreq, 4, 1, kNone},
        {kRreq, 12, 3, kLarger},
        {kRreq, 0x7ffffffc, 536870911, kLarger},
        {kRreq, 6, 1, kInvalid},
        {kRreq, 3, 0, kInvalid},
        {kRreq, 0x7fffffff, 536870911, kInvalid},
        {kRreq, 0, 0, kInvalid},
        {kRreq, INT32_MIN, 0, kInvalid},
        {kPtpData, 5, 5, kNone},
        {kPtpData, 1, 1, kNone},
        {kPtpData, 6, 6, kLarger},
        {kPtpData, 0x7fff, 32767, kLarger},
        {kPtpData, 0, 0, kInvalid},
        {kPtpData, -32768, 0, kInvalid},
    };
    for (const auto& [type, length, counted, fault] : cases) {
        SCOPED_TRACE(type.word + " " + std::to_string(length));
        const bool isRreq = type.word == "rreq";
        const auto number = static_cast<uint32_t>(length);
        const Bytes packet = sealed(isRreq ? patched(type.packet, kOskaAt + 20, be32(number))
                                           : patched(type.packet, kOskaAt + 28, be16(number)));
        const std::string told = "OSKA " + type.word + " packet ";
        const std::string invalid =
            told + "with invalid length (" + std::to_string(length) + ") from 10.0.0.1";
        const std::string larger = told + "larger than UDP payload from 10.0.0.1";
        for (const bool isCut : {false, true}) {
            const bool bad = fault == kInvalid || (fault == kLarger && !isCut);
            const auto side = [&, counted = counted](const std::string& name) {
                const std::string of = isRreq ? " rseq" : " bytes";
                return (bad ? " bad" + name + "=1" : "") + (isRreq ? " rreq" : " data") + name +
                       "=1" + (counted != 0 ? of + name + "=" + std::to_string(counted) : "");
            };
            EXPECT_EQ(outcomeOf({isCut ? cut(packet, packet.size() - 1) : packet}),
                      type.outcome(side("Sent"), side("Recv"),
                                   bad ? Lines{fault == kLarger ? larger : invalid} : Lines{}));
        }
    }
}

TEST(TwoSided, IsBadOnceHoweverMuchIsWrong) {
    const Bytes wrong = oskaPacket({.dstIp = ipv4(10, 0, 0, 2), .src = 0, .dst = 0}, 6, Bytes(8));
    const Lines told = {
        "OSKA packet without UDP checksum from 10.0.0.1",
        "OSKA ptp data packet with invalid oska src (00000000) from 10.0.0.1",
        "OSKA ptp data packet with invalid oska dst (00000000/0200000a) from 10.0.0.1",
        "OSKA ptp data packet with invalid length (0) from 10.0.0.1",
    };
    EXPECT_EQ(outcomeOf({patched(wrong, kUdpChecksumAt, be16(0))}),
              kPtpData.outcome(" badSent=1 dataSent=1", " badRecv=1 dataRecv=1", told));
}

// One host, seen as a source without SCid and as a destination.
TEST(TwoSided, KeepsARecordForEachRoleOfAHost) {
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

TEST(TwoSided, CountsBothSidesInOneRecordWhereTheyAreTheSame) {
    const PacketHead self = {.srcPort = 7500, .dstIp = ipv4(10, 0, 0, 1)};
    const auto record = [](const Bytes& packet) { return outcomeOf({packet}).tree.back(); };
    const std::string head = " rl 10.0.0.1:7500 live";
    EXPECT_EQ(record(rreqPacket(self, 3)), head + " rreqSent=1 rreqRecv=1 rseqSent=3 rseqRecv=3");
    EXPECT_EQ(record(patched(oskaPacket(self, 5, {}), kUdpChecksumAt, be16(0))),
              head + " badSent=1 badRecv=1 rrejSent=1 rrejRecv=1");
    EXPECT_EQ(record(shortened(oskaPacket(self, 5, {}), 20)), head + " badSent=1");
}

}  // namespace
