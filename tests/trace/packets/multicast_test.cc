#include "trace/packets/multicast.h"

#include <gtest/gtest.h>

#include "tests/support/trace_run.h"

namespace {

const std::string kSeen = "10.0.0.1:7001 live";
const std::string kKnown = kSeen + " epoch=80000001 lastSeq=1";

// Its payload is a message without a subject: 8 bytes that are charged nowhere.
Bytes data(const PacketHead& head = {}) {
    return dataPacket(head, message({}));
}

TEST(Multicast, LooksAtAHeaderOnlyWhenItIsInHand) {
    const struct {
        std::string word;
        Bytes packet;
        size_t alsoBytes;  // another size that will do
        std::string atAlso, counted;
    } cases[] = {
        {"data", data(), 32, " data=1 bytes=8", " data=1 bytes=8"},
        {"null", nullPacket({}, 0.5), 24, " nulls=1", " nulls=1 reliability=0.5"},
    };
    for (const auto& c : cases) {
        const std::string told =
            "OSKA " + c.word + " packet too small for " + c.word + " header from 10.0.0.1";
        for (size_t oskaBytes = 0; oskaBytes < 32; ++oskaBytes) {
            SCOPED_TRACE(c.word + " of " + std::to_string(oskaBytes));
            const Bytes whole = claimed(c.packet, oskaBytes);
            const bool enough = oskaBytes == c.alsoBytes;
            EXPECT_EQ(outcomeOf({whole}), enough ? hostOutcome(1, kKnown + c.atAlso)
                                                 : hostOutcome(1, kSeen + " bad=1", {told}));
            if (oskaBytes < 20) continue;  // isn't even classified
            EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + oskaBytes)}),
                      hostOutcome(1, enough ? kKnown + c.atAlso : kSeen));
        }
        EXPECT_EQ(outcomeOf({cut(c.packet, kOskaAt + 32)}), hostOutcome(1, kKnown + c.counted));
    }
}

TEST(Multicast, TellsWhatIsWrongAndCountsItAllTheSame) {
    const struct {
        size_t offset;
        Bytes patch;
        std::string text;  // none: no fault
    } cases[] = {
        {4, be32(0), "invalid oska src (00000000)"},
        {4, be32(0xffffffff), "invalid oska src (ffffffff)"},
        {12, be32(0), ""},
        {12, be32(ipv4(223, 255, 255, 255)), "invalid oska dst (ffffffdf)"},
        {12, be32(ipv4(224, 0, 0, 0)), ""},
        {12, be32(ipv4(239, 255, 255, 255)), ""},
        {12, be32(ipv4(240, 0, 0, 1)), "invalid oska dst (010000f0)"},
        {12, be32(0xffffffff), "invalid oska dst (ffffffff)"},
    };
    for (const auto& [offset, patch, text] : cases) {
        SCOPED_TRACE(text);
        const std::string bad = text.empty() ? "" : " bad=1";
        const auto told = [&text = text](const std::string& word) {
            return text.empty() ? Lines{}
                                : Lines{"OSKA " + word + " packet with " + text + " from 10.0.0.1"};
        };
        EXPECT_EQ(outcomeOf({sealed(patched(data(), kOskaAt + offset, patch))}),
                  hostOutcome(1, kKnown + bad + " data=1 bytes=8", told("data")));
        EXPECT_EQ(outcomeOf({sealed(patched(nullPacket({}, {}), kOskaAt + offset, patch))}),
                  hostOutcome(1, kKnown + bad + " nulls=1", told("null")));
    }
}

TEST(Multicast, ChecksTheDataLength) {
    const std::string larger = "OSKA data packet larger than UDP payload from 10.0.0.1";
    const auto invalid = [](const char* number) {
        return std::string("OSKA data packet with invalid length (") + number + ") from 10.0.0.1";
    };
    const struct {
        uint16_t length;
        std::string counted;
        Lines logged;
        std::string countedWhenCut;
        Lines loggedWhenCut;
    } cases[] = {
        {0, " bad=1 data=1", {invalid("0")}, " bad=1 data=1", {invalid("0")}},
        {8, " data=1 bytes=8", {}, " data=1 bytes=8", {}},
        {9, " bad=1 data=1 bytes=9", {larger}, " data=1 bytes=9", {}},
        {0x7fff, " bad=1 data=1 bytes=32767", {larger}, " data=1 bytes=32767", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        const Bytes packet = sealed(patched(data(), kOskaAt + 28, be16(c.length)));
        EXPECT_EQ(outcomeOf({packet}), hostOutcome(1, kKnown + c.counted, c.logged));
        EXPECT_EQ(outcomeOf({cut(packet, packet.size() - 1)}),
                  hostOutcome(1, kKnown + c.countedWhenCut, c.loggedWhenCut));
    }
}

constexpr uint32_t kEpoch = 0x80000001;
constexpr uint32_t kTop = 0xffffffff;

struct Step {
    char kind;  // d: data of 8 bytes, n: null
    uint32_t seq;
    uint32_t epoch = kEpoch;
};

// A new epoch begins anew wherever its numbers lie.
TEST(Multicast, FollowsEachSendersSequence) {
    constexpr uint32_t kFirst = 0x80000000;  // ahead of kEpoch
    const struct {
        const char* name;
        std::vector<Step> steps;
        std::string host;
    } cases[] = {
        {"late one stays a gap",
         {{'d', 5}, {'d', 9}, {'d', 7}},
         "lastSeq=9 gaps=3 data=2 bytes=16 rdata=1 rbytes=8"},
        {"null ahead of data",
         {{'d', 5}, {'n', 7}, {'d', 6}, {'d', 7}, {'d', 8}},
         "lastSeq=8 gaps=2 data=2 bytes=16 nulls=1 rdata=2 rbytes=16"},
        {"null at and below", {{'d', 5}, {'n', 5}, {'n', 3}}, "lastSeq=5 data=1 bytes=8 nulls=2"},
        {"null first", {{'n', 7}, {'d', 8}}, "lastSeq=8 data=1 bytes=8 nulls=1"},
        {"starts at 0", {{'d', 0}, {'d', 1}}, "lastSeq=4294967295 rdata=2 rbytes=16"},
        {"null at 0", {{'n', 0}, {'d', 1}}, "lastSeq=1 data=1 bytes=8 nulls=1"},
        {"no wrap",
         {{'d', kTop - 1}, {'d', kTop}, {'d', 0}},
         "lastSeq=4294967295 data=2 bytes=16 rdata=1 rbytes=8"},
        {"widest gap",
         {{'d', 1}, {'d', kTop}},
         "lastSeq=4294967295 gaps=4294967293 data=2 bytes=16"},
        {"widest gap of a null",
         {{'n', 0}, {'n', kTop}},
         "lastSeq=4294967295 gaps=4294967295 nulls=2"},
        {"new epoch, lower", {{'d', 500, kFirst}, {'d', 1}}, "lastSeq=1 data=2 bytes=16"},
        {"new epoch, higher", {{'d', 5, kFirst}, {'d', 900}}, "lastSeq=900 data=2 bytes=16"},
        {"new epoch of a null",
         {{'d', 5, kFirst}, {'n', 900}},
         "lastSeq=900 data=1 bytes=8 nulls=1"},
        {"gaps beyond 32 bits",
         {{'d', 1, kFirst}, {'d', kTop, kFirst}, {'d', 1}, {'d', kTop}},
         "lastSeq=4294967295 gaps=8589934586 data=4 bytes=32"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Bytes> packets;
        for (const Step& step : c.steps) {
            const PacketHead head = {.epoch = step.epoch, .seq = step.seq};
            packets.push_back(step.kind == 'd' ? data(head) : nullPacket(head, {}));
        }
        EXPECT_EQ(outcomeOf(packets),
                  hostOutcome(packets.size(), kSeen + " epoch=80000001 " + c.host));
    }
}

// A fresh record has epoch 0 and sequence 0, so a sender of epoch 0 doesn't look new.
TEST(Multicast, CountsGapsFromZeroForASenderOfEpochZero) {
    EXPECT_EQ(outcomeOf({data({.epoch = 0, .seq = 100})}),
              hostOutcome(1, "10.0.0.1:0 live epoch=00000000 lastSeq=100 gaps=99 data=1 bytes=8"));
}

TEST(Multicast, HandsOnlyNewDataToTheScan) {
    const Bytes sound = busMessage("A.B");
    const Bytes stray = joined({sound, {1, 2, 3, 4}});
    const std::string strayTold = "OSKA payload too small to contain message from 10.0.0.1";
    const size_t messageBytes = sound.size();
    const std::string ofSound = " data=1 bytes=" + std::to_string(messageBytes);
    const std::string ofStray = " data=1 bytes=" + std::to_string(messageBytes + 4);
    const Bytes strayPacket = dataPacket({}, stray);
    const Bytes noLength = sealed(patched(dataPacket({}, sound), kOskaAt + 28, be16(0)));

    const struct {
        const char* name;
        Bytes packet;
        std::string host;
        int charged;
        Lines logged;
    } cases[] = {
        {"whole", dataPacket({}, sound), ofSound, 1, {}},
        {"runs on", dataPacket({}, sound, 1), ofSound, 1, {}},
        {"continued", dataPacket({}, sound, 2), ofSound, 0, {}},
        {"whole with stray bytes", strayPacket, " bad=1" + ofStray, 1, {strayTold}},
        {"runs on with stray bytes", dataPacket({}, stray, 1), ofStray, 1, {}},
        {"cut with stray bytes", cut(strayPacket, strayPacket.size() - 1), ofStray, 1, {}},
        {"no length",
         noLength,
         " bad=1 data=1",
         1,
         {"OSKA data packet with invalid length (0) from 10.0.0.1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome expected = hostOutcome(1, kKnown + c.host, c.logged);
        if (c.charged != 0) {
            expected.tree.push_back("  subject A.B live");
            expected.tree.push_back("   from 10.0.0.1:7001 live msgs=1 bytes=" +
                                    std::to_string(messageBytes));
        }
        EXPECT_EQ(outcomeOf({c.packet}), expected);
    }

    const Outcome repeated = outcomeOf({dataPacket({}, sound), dataPacket({}, stray)});
    EXPECT_EQ(repeated.tree.back(),
              "   from 10.0.0.1:7001 live msgs=1 bytes=" + std::to_string(messageBytes));
    EXPECT_EQ(repeated.logged, Lines());
}

}  // namespace
