// Endpoints in conversations of several packets: what is lost on the way, peers that start again,
// closes, bounds.

#include "lib/transport/reliable/endpoint_core.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/core_wire.h"
#include "tests/support/fail_alloc.h"

namespace {

constexpr uint8_t kSyn = kFlagSyn;
constexpr uint8_t kFin = kFlagFin;
constexpr uint8_t kRst = kFlagRst;
constexpr uint8_t kNote = kFlagCloseNotice;

struct Step {
    std::function<void(CoreWire&)> act;
    std::string done;
};
struct Story {
    const char* name;
    std::vector<Step> steps;
};

Step peer(const WirePacket& packet, const char* done) {
    return {[packet](CoreWire& wire) { wire.take(packet); }, done};
}
Step sends(const char* done, bool delaySmall = false) {
    return {[delaySmall](CoreWire& wire) { EXPECT_EQ(wire.send(1, delaySmall), kStatusSuccess); },
            done};
}
Step runs(double seconds, const char* done) {
    return {[seconds](CoreWire& wire) { wire.run(seconds); }, done};
}
Step closes(bool flush, const char* done) {
    return {[flush](CoreWire& wire) { wire.closeBegin(flush); }, done};
}
Step ends(const char* done) {
    return {[](CoreWire& wire) { wire.closeEnd(); }, done};
}
// For an earlier incarnation of this side.
Step old(const WirePacket& packet, const char* done) {
    return {[packet](CoreWire& wire) { wire.take(packet, 12345); }, done};
}
Step peerRestarts(const char* done) {
    return {[](CoreWire& wire) { ++wire.life, wire.take({kSyn, 1, 0}); }, done};
}
Step isFlushed(bool flushed) {
    return {[flushed](CoreWire& wire) { EXPECT_EQ(endpointIsFlushed(&wire.core), flushed); }, ""};
}

const Step kPeerOpens = {[](CoreWire& wire) {
                             wire.take({kSyn, 1, 0}), wire.take({0, 1, 2}), (void)wire.done();
                         },
                         ""};
const Step kOpens = {
    [](CoreWire& wire) {
        (void)wire.send(), wire.take({kSyn, 1, 2}), wire.take({0, 1, 3}), (void)wire.done();
    },
    ""};

void tell(const Story& story) {
    SCOPED_TRACE(story.name);
    CoreWire wire;
    for (size_t i = 0; i < story.steps.size(); ++i) {
        SCOPED_TRACE(i);
        story.steps[i].act(wire);
        EXPECT_EQ(wire.done(), story.steps[i].done);
    }
}

TEST(EndpointCore, OpensWhateverIsLostOrLate) {
    const Story stories[] = {
        {"both at the same time",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          peer({kSyn, 2, 2}, "DATA 3/3; ESTABLISHED"), peer({0, 3, 4, 1}, "ACK 3/4; 1 taken")}},
        {"both, and the peer's SYN-ACK comes late",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          peer({0, 4, 2, 1}, "DATA 3/2; ESTABLISHED"), peer({0, 3, 2, 1}, "ACK 3/2"),
          peer({kSyn, 2, 2}, "ACK 3/5; 2 taken"), peer({kSyn, 2, 2}, "ACK 3/5"),
          peer({0, 5, 4, 1}, "ACK 3/6; 1 taken")}},
        {"both, and our SYN-ACK is lost",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          runs(1, "SYN 2/2 at 1"), peer({0, 2, 2, 1}, "DATA 3/3; ESTABLISHED; 1 taken"),
          runs(1, "SYN 2/3 at 1"), peer({0, 2, 4}, ""), runs(90, "")}},
        {"a SYN of before, ahead of the answer",
         {sends("SYN 1/0; SYN_SENT"),
          {[](CoreWire& wire) {
               wire.life = 5, wire.take({kSyn, 9, 0}), wire.life = 0;
           },
           "SYN 2/10; SYN_RECEIVED"},
          peer({kSyn, 1, 2}, "DATA 3/2; ESTABLISHED")}},
        {"SYN and data in turn",
         {peer({kSyn, 1, 0}, "SYN 1/2; SYN_RECEIVED"), peer({0, 3, 2, 1}, "ACK 1/2; ESTABLISHED"),
          peer({0, 2, 2, 1}, "ACK 1/4; 2 taken"), peer({kSyn, 1, 0}, "ACK 1/4")}},
        {"packets for nobody", {peer({0, 5, 9, 1}, "RST 9"), peer({kRst, 5, 0}, "")}},
        {"a window of nothing",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 2, 0, 0}, "DATA 2/2; ESTABLISHED"), sends(""),
          peer({0, 1, 3, 0, 0}, "DATA 3/2")}},
    };
    for (const Story& story : stories)
        tell(story);
}

TEST(EndpointCore, OpensAnewWithWhatIsStillToArrive) {
    const Story stories[] = {
        {"a reset",
         {kPeerOpens, sends("DATA 2/2"), sends(""), peer({0, 1, 3}, "DATA 3/2"),
          peer({kRst, 2, 0}, "SYN 2/0; SYN_SENT"), runs(1, "SYN 2/0 at 1"),
          peer({kSyn, 40, 3}, "DATA 3/41; ESTABLISHED")}},
        {"a reset without data", {kPeerOpens, peer({kRst, 2, 0}, "CLOSED")}},
        {"a reset with half a message",
         {kPeerOpens,
          {[](CoreWire& wire) {
               const FragmentOption first = {2000, 2, 0};
               wire.takeRaw({wire.peerId(), wire.coreIds[1], 2, 2, 0, 32}, &first,
                            std::vector<uint8_t>(kFragmentPayloadBytes));
           },
           "ACK 1/3"},
          peer({kRst, 3, 0}, "CLOSED; in lost 1412")}},
        {"the peer starts again, and takes us for the one of before",
         {kPeerOpens, sends("DATA 2/2"), peerRestarts("ACK 2/2"),
          peer({kRst, 2, 0}, "SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          peer({0, 1, 2}, "DATA 3/2; ESTABLISHED")}},
        {"the peer starts again behind its FIN",
         {kPeerOpens, sends("DATA 2/2"), peer({kFin, 2, 2}, "ACK 2/3; CLOSE_WAIT"),
          peerRestarts("SYN 1/2; SYN_RECEIVED"), peer({0, 1, 2}, "DATA 2/2; ESTABLISHED"),
          peer({0, 1, 3}, ""), peer({0, 2, 3, 1}, "ACK 2/3; 1 taken")}},
        {"what comes for an incarnation of before",
         {kPeerOpens, old({0, 2, 2, 1}, "RST 2"), old({kRst, 2, 0}, ""),
          peer({0, 2, 2, 1}, "ACK 1/3; 1 taken")}},
        {"a send while we close, and the peer is silent",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"), sends("SYN 1/0; SYN_SENT")}},
        {"a send while we close, and the peer goes on",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"),
          peer({0, 2, 2, 1}, "ACK 2/3; 1 taken"), sends(""), peer({0, 2, 3}, "FIN_WAIT_2"),
          runs(1, "ACK 2/3 at 1"), peer({0, 3, 3, 1}, "ACK 2/4; 1 taken"),
          peer({kFin, 4, 3}, "ACK 2/5, SYN 1/0; SYN_SENT"),
          peer({kSyn, 1, 2}, "DATA 2/2; ESTABLISHED")}},
        {"the same, and the peer has gone",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"),
          peer({0, 2, 3, 1}, "ACK 2/3; FIN_WAIT_2; 1 taken"), sends(""),
          peer({kRst, 3, 0}, "SYN 2/0; SYN_SENT")}},
    };
    for (const Story& story : stories)
        tell(story);
}

TEST(EndpointCore, TakesAllAheadOfAFin) {
    const Story stories[] = {
        {"the gap closes",
         {kPeerOpens, peer({kFin, 3, 2}, ""),
          peer({0, 2, 2, 1}, "ACK 1/4, FIN 2/4; LAST_ACK; 1 taken")}},
        {"a held packet ahead of the FIN",
         {kPeerOpens, peer({kFin, 4, 2}, ""), peer({0, 3, 2, 1}, "ACK 1/2"),
          peer({0, 2, 2, 1}, "ACK 1/5, FIN 2/5; LAST_ACK; 2 taken")}},
        {"the other way round",
         {kPeerOpens, peer({0, 3, 2, 1}, "ACK 1/2"), peer({kFin, 4, 2}, ""),
          peer({0, 2, 2, 1}, "ACK 1/5, FIN 2/5; LAST_ACK; 2 taken")}},
        {"while we close",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"), peer({kFin, 4, 3}, "FIN_WAIT_2"),
          peer({0, 3, 3, 1}, "ACK 2/2"), peer({0, 2, 3, 1}, "ACK 2/5; TIME_WAIT; 2 taken")}},
        {"while both close",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"), peer({kFin, 3, 2}, ""),
          peer({0, 2, 2, 1}, "ACK 2/4; CLOSING; 1 taken")}},
    };
    for (const Story& story : stories)
        tell(story);
}

TEST(EndpointCore, Closes) {
    const Story stories[] = {
        {"without flush",
         {kOpens, sends("DATA 3/2"), closes(false, ""), ends("RST 4; CLOSED; out lost 8"),
          peer({0, 2, 3, 1}, "RST 3")}},
        {"with nothing to flush",
         {kOpens, closes(true, ""), isFlushed(true), ends("RST 3; CLOSED")}},
        {"with flush, and no more is taken",
         {kOpens, sends("DATA 3/2"), sends("", true), closes(true, "DATA! 4/2"), isFlushed(false),
          peer({0, 2, 4, 1}, ""), runs(1, "DATA! 4/2 at 1"), peer({kSyn, 1, 0}, ""),
          peer({0, 1, 5}, "FIN! 5/2; LAST_ACK"), isFlushed(true), ends("CLOSED")}},
        {"with flush, of what isn't open yet",
         {sends("SYN 1/0; SYN_SENT"), closes(true, ""),
          peer({kSyn, 1, 2}, "DATA! 2/2; ESTABLISHED"), peer({0, 1, 3}, "FIN! 3/2; LAST_ACK"),
          isFlushed(true), ends("CLOSED")}},
        {"with flush, and the peer is silent",
         {kOpens, sends("DATA 3/2"), closes(true, ""),
          runs(20, "DATA! 3/2 at 1, DATA! 3/2 at 3, DATA! 3/2 at 7"), isFlushed(true),
          ends("RST 4; CLOSED; out lost 8")}},
        {"with flush, as the peer does",
         {kOpens, sends("DATA 3/2"), closes(true, ""), peer({kNote, 2, 3, 1}, ""), isFlushed(true),
          ends("RST 4; CLOSED; out lost 8")}},
        {"with flush, and the peer resets",
         {kOpens, sends("DATA 3/2"), closes(true, ""), peer({kRst, 2, 0}, ""), isFlushed(true),
          ends("RST 4; CLOSED; out lost 8")}},
        {"the peer's endpoint, of what is acknowledged no more",
         {kOpens, sends("DATA 3/2"), sends("DATA 4/2"),
          peer({kNote, 2, 4, 1}, "FIN 5/3, ACK 5/3; FIN_WAIT_2; 1 taken; out lost 8"),
          peer({kNote | kFin, 3, 4}, "ACK 5/4; TIME_WAIT"), runs(1, "CLOSED")}},
        {"what is delayed leaves on a tick",
         {kOpens, runs(0.15, ""), sends("", true), runs(0.05, "DATA 3/2 at 0.05")}},
        {"a packet within the last 300 seconds",
         {kPeerOpens, runs(299, ""), peer({0, 2, 2, 1}, "ACK 1/3; 1 taken"), runs(300, ""),
          runs(1, "FIN 2/3 at 1; FIN_WAIT_1")}},
        {"the fourth acknowledgement of a number",
         {kOpens, sends("DATA 3/2"), sends("DATA 4/2"), peer({0, 1, 3}, ""), peer({0, 1, 3}, ""),
          peer({0, 1, 3}, ""), peer({0, 1, 3}, "DATA 3/2")}},
    };
    for (const Story& story : stories)
        tell(story);
}

TEST(EndpointCore, TellsEachPeersLossAtItsClose) {
    CoreWire wire;
    for (wire.port = 1; wire.port <= kMostLosses + 2; ++wire.port)
        (void)wire.send(wire.port);
    wire.closeBegin(false);
    wire.closeEnd();
    EXPECT_EQ(wire.lost,
              "out lost 48, out lost 40, out lost 32, out lost 24, out lost 16, out lost 8");
}

TEST(EndpointCore, DropsTheOldestHalfOpen) {
    CoreWire wire;
    wire.core.mostHalfOpen = 3;
    const auto isThere = [&](uint16_t port) {
        wire.port = port;
        return wire.state() != kClosed;
    };
    for (wire.port = 1; wire.port <= 5; ++wire.port) {
        wire.take({kSyn, 1, 0});
        if (wire.port == 1) wire.take({0, 1, 2});  // confirmed
        if (wire.port == 2) (void)wire.send();     // wanted by this side, too
    }
    EXPECT_EQ(wire.notices, 0u);
    EXPECT_EQ(wire.core.halfOpen, 3u);
    wire.take({kSyn, 1, 0});
    EXPECT_EQ(wire.notices, kNoticeHalfOpen);
    EXPECT_EQ(wire.lost, "");
    EXPECT_TRUE(isThere(1) && isThere(2) && isThere(4) && isThere(5) && isThere(6));
    EXPECT_FALSE(isThere(3));
    EXPECT_EQ(wire.core.halfOpen, 3u);
    wire.run(100);
    EXPECT_EQ(wire.core.halfOpen, 0u);
}

TEST(EndpointCore, IgnoresSynsThatMakeNoSense) {
    constexpr uint32_t kPeer = 77;
    const PacketHeader headers[] = {
        {kPeer, 0, UINT64_MAX, 0, kSyn, 32},  // numbers would wrap
        {kPeer, 0, UINT64_MAX - 32, 0, kSyn, 32}, {0, 0, 1, 0, kSyn, 32},
        {kPeer, 0, 1, 0, kSyn | kRst, 32},        {kPeer, 0, 1, 5, kSyn, 32},
        {kPeer, 0, 1, 5, kSyn | kRst, 32},
    };
    CoreWire wire;
    for (const PacketHeader& header : headers) {
        wire.takeRaw(header, nullptr, {});
        EXPECT_EQ(wire.done(), "") << header.seq;
        EXPECT_EQ(wire.core.connections, 0u);
    }
    const FragmentOption fragment = {2000, 1, 0};
    wire.takeRaw({kPeer, 0, 1, 0, kSyn | kFin, 32}, &fragment,
                 std::vector<uint8_t>(kFragmentPayloadBytes));
    EXPECT_EQ(wire.done(), "SYN 1/2; SYN_RECEIVED");
}

// Every message is delivered, refused, or told as lost.
TEST(EndpointCore, AnswersForEachFailedAllocation) {
    const size_t failing = eachAllocationFails([] {
        CoreWire wire;
        if (!wire.isMade) return;
        uint32_t accepted = 0;
        for (uint32_t i = 0; i < 3; ++i)
            accepted += wire.send() == kStatusSuccess ? 1 : 0;
        for (wire.port = 2; wire.port < 40; ++wire.port)
            wire.take({kSyn, 1, 0});
        wire.port = 1;
        wire.take({kSyn, 1, 2});
        wire.take({0, 2, 2, 1});
        const bool isTold = wire.received == 1 || wire.lost.find("in lost") == 0 || accepted == 0;
        EXPECT_TRUE(isTold) << wire.lost;
        wire.take({kRst, 3, 0});
        wire.lost.clear();
        wire.closeEnd();
        EXPECT_EQ(wire.core.connections, 0u);
    });
    EXPECT_GT(failing, 0u);
}

TEST(DeadlineHeap, GivesTheSoonestFirst) {
    DeadlineHeap heap = {};
    Deadline deadlines[50] = {};
    ASSERT_TRUE(deadlineHeapReserve(&heap, std::size(deadlines)));
    uint32_t random = 1;
    for (uint32_t round = 0; round < 5000; ++round) {
        random = random * 1664525 + 1013904223;
        Deadline& one = deadlines[(random >> 8) % std::size(deadlines)];
        deadlineSet(&heap, &one, (random >> 24) % 4 == 0 ? kNever : random >> 16);
        const Deadline* soonest = nullptr;
        for (const Deadline& each : deadlines) {
            if (each.place == 0) continue;
            if (soonest == nullptr || each.at < soonest->at) soonest = &each;
        }
        const Deadline* const first = deadlineFirst(&heap);
        ASSERT_EQ(first != nullptr ? first->at : kNever, soonest != nullptr ? soonest->at : kNever);
    }
    deadlineHeapFree(&heap);
}

}  // namespace
