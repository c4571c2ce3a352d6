#include "trace/packets/classify.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

// A message without a subject: 8 bytes that are charged nowhere.
Bytes good(const PacketHead& head = {}) {
    return dataPacket(head, message({}));
}

const std::string kSeen = "10.0.0.1:7001 live";
const std::string kCounted = kSeen + " epoch=80000001 lastSeq=1 data=1 bytes=8";
const std::string kCountedBad = kSeen + " epoch=80000001 lastSeq=1 bad=1 data=1 bytes=8";

const std::string kNoChecksum = "OSKA packet without UDP checksum from 10.0.0.1";
const std::string kWrongChecksum = "OSKA packet with invalid UDP checksum from 10.0.0.1";
const std::string kUdpAboveIp = "OSKA packet with UDP size greater than IP size from 10.0.0.1";
const std::string kTooSmall = "OSKA data packet too small for data header from 10.0.0.1";

TEST(Classify, LeavesOtherTrafficUncounted) {
    const Lines untouched = {"packets=1 oska=0"};
    const std::string noUdp = "IP/UDP Packet too small to contain UDP header from 10.0.0.1";
    EXPECT_EQ(outcomeOf({patched(good(), 9, {6})}), (Outcome{untouched, {}}));
    for (const size_t offset : {0u, 1u, 2u, 3u}) {
        EXPECT_EQ(outcomeOf({sealed(patched(good(), kOskaAt + offset, {0x77}))}),
                  (Outcome{untouched, {}}));
    }
    for (size_t sizeBytes = 0; sizeBytes < kOskaAt + 20; ++sizeBytes) {
        SCOPED_TRACE(sizeBytes);
        const Outcome outcome = outcomeOf({cut(good(), sizeBytes)});
        EXPECT_EQ(outcome.tree, untouched);
        if (sizeBytes >= kIpBytes) {
            EXPECT_EQ(outcome.logged, sizeBytes < kOskaAt ? Lines{noUdp} : Lines{});
        }
    }
}

TEST(Classify, SettlesHowMuchIsInHandAndWhetherItIsSound) {
    const size_t whole = good().size();
    const Bytes odd = dataPacket({}, message({field({}, 7, {1, 2})}));
    const std::string oddBad = kSeen + " epoch=80000001 lastSeq=1 bad=1 data=1 bytes=13";
    const auto unsealed = [](Bytes bytes) { return patched(std::move(bytes), 46, {9}); };
    const auto noSum = [](Bytes bytes) {
        return patched(std::move(bytes), kUdpChecksumAt, be16(0));
    };
    const auto ipTotal = [](size_t size) { return patched(good(), 2, be16(size)); };
    const auto udpLength = [](size_t size) { return patched(good(), kUdpLengthAt, be16(size)); };

    const struct {
        const char* name;
        Bytes packet;
        std::string host;
        Lines logged;
    } cases[] = {
        {"whole", good(), kCounted, {}},
        {"bytes behind the datagram", padded(good(), 90), kCounted, {}},
        {"cut, sum can't be told", unsealed(cut(good(), whole - 1)), kCounted, {}},
        {"cut, without sum", noSum(cut(good(), whole - 1)), kCountedBad, {kNoChecksum}},
        {"without sum", noSum(good()), kCountedBad, {kNoChecksum}},
        {"wrong sum", unsealed(good()), kCountedBad, {kWrongChecksum}},
        {"wrong last odd byte", patched(odd, odd.size() - 1, {3}), oddBad, {kWrongChecksum}},
        {"wrong pseudo header", patched(good(), 23, {8}), kCountedBad, {kWrongChecksum}},
        {"UDP above IP", ipTotal(whole - 1), kCountedBad, {kUdpAboveIp}},
        {"UDP above IP, no sum", noSum(ipTotal(0)), kCountedBad, {kUdpAboveIp, kNoChecksum}},
        {"UDP above IP and above what is in hand", udpLength(2000), kCountedBad, {kUdpAboveIp}},
        {"UDP above IP, bytes behind",
         padded(ipTotal(67), 90),
         kCountedBad,
         {kUdpAboveIp, "Invalid message from 10.0.0.1 - bad magic"}},
        {"UDP below its header", udpLength(7), kSeen + " bad=1", {kTooSmall}},
        {"UDP below its header, no sum",
         noSum(udpLength(7)),
         kSeen + " bad=1",
         {kNoChecksum, kTooSmall}},
        {"least that is looked at", shortened(good(), 20), kSeen + " bad=1", {kTooSmall}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome expected = hostOutcome(1, c.host, c.logged);
        if (c.packet[23] == 8) expected.tree[1] = "port 7432 live";
        EXPECT_EQ(outcomeOf({c.packet}), expected);
    }
}

TEST(Classify, CountsUnknownTypesAsBadOnce) {
    for (const int type : {2, 0, 10, -32768}) {
        SCOPED_TRACE(type);
        const Bytes packet = oskaPacket({}, static_cast<int16_t>(type), Bytes(12));
        const std::string told =
            "OSKA packet with invalid type (" + std::to_string(type) + ") from 10.0.0.1";
        const std::string bad = kSeen + " bad=1";
        EXPECT_EQ(outcomeOf({packet}), hostOutcome(1, bad, {told}));
        EXPECT_EQ(outcomeOf({patched(packet, kUdpChecksumAt, be16(0))}),
                  hostOutcome(1, bad, {kNoChecksum, told}));
        EXPECT_EQ(outcomeOf({cut(packet, kOskaAt + 20)}), hostOutcome(1, bad, {told}));
    }
}

TEST(Classify, TellsSendersApartByScidOnlyWhereTheEpochSaysSo) {
    const struct {
        uint32_t epoch;
        Lines hosts;
    } cases[] = {
        {0x7fffffff, {"  host 10.0.0.1:0 live epoch=7fffffff lastSeq=2 data=2 bytes=16"}},
        {0x80000000,
         {"  host 10.0.0.1:7001 live epoch=80000000 lastSeq=1 data=1 bytes=8",
          "  host 10.0.0.1:7002 live epoch=80000000 lastSeq=2 data=1 bytes=8"}},
    };
    for (const auto& [epoch, hosts] : cases) {
        SCOPED_TRACE(epoch);
        Lines tree = {"packets=2 oska=2", "port 7500 live", " net 239.1.1.1 live"};
        tree.insert(tree.end(), hosts.begin(), hosts.end());
        EXPECT_EQ(
            outcomeOf({good({.epoch = epoch}), good({.srcPort = 7002, .epoch = epoch, .seq = 2})}),
            (Outcome{tree, {}}));
    }
}

}  // namespace
