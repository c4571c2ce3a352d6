// Endpoints in conversations of several packets that random lives seldom or never have: close
// races, bounds, and how messages share packets.

#include "lib/transport/reliable/endpoint_core.h"

#include <gtest/gtest.h>

#include <functional>

#include "lib/containers/entry_ring.h"
#include "tests/support/core_wire.h"
#include "tests/support/reliable_net.h"

namespace {

constexpr uint8_t kSyn = kFlagSyn;
constexpr uint8_t kFin = kFlagFin;
constexpr uint8_t kRst = kFlagRst;

struct Step {
    std::function<void(CoreWire&)> act;
    std::string done;
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
Step closes(const char* done) {
    return {[](CoreWire& wire) { wire.closeBegin(true); }, done};
}
Step ends(const char* done) {
    return {[](CoreWire& wire) {
                EXPECT_TRUE(endpointIsFlushed(&wire.core));
                wire.closeEnd();
            },
            done};
}

Step syn(const PacketHeader& header) {
    return {[header](CoreWire& wire) { wire.takeRaw(header, nullptr, {}); }, ""};
}
// Zeros, under the option where it has a size.
Step fragment(uint64_t seq, const FragmentOption& option, const char* done) {
    return {[=](CoreWire& wire) {
                wire.takeRaw({wire.peerId(), wire.coreIds[1], seq, 2, 0, 32},
                             option.totalSize != 0 ? &option : nullptr,
                             std::vector<uint8_t>(kFragmentPayloadBytes));
            },
            done};
}

const Step kPeerOpens = {[](CoreWire& wire) {
                             wire.take({kSyn, 1, 0}), wire.take({0, 1, 2}), (void)wire.done();
                         },
                         ""};
const Step kOtherPeerOpens = {[](CoreWire& wire) { wire.port = 2, kPeerOpens.act(wire); }, ""};
const Step kOpens = {
    [](CoreWire& wire) {
        (void)wire.send(), wire.take({kSyn, 1, 2}), wire.take({0, 1, 3}), (void)wire.done();
    },
    ""};

// The held 3 would be in the place of 35.
const Step kNumbersJump = {[](CoreWire& wire) {
                               ReliableConnection* const connection =
                                   connectionFind(&wire.core, wire.address());
                               connection->rcvNxt = 34;
                               connection->rcvEdge = 34 + kReceiveWindow;
                           },
                           ""};

const Step kLittleRoom = {[](CoreWire& wire) { wire.core.share.most = 2'000; }, ""};

TEST(EndpointCore, GoesThroughConversations) {
    const struct {
        const char* name;
        std::vector<Step> steps;
    } stories[] = {
        {"both open, and the peer's SYN-ACK comes late",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          peer({0, 4, 2, 1}, "DATA 3/2; ESTABLISHED"), peer({0, 3, 2, 1}, "ACK 3/2"),
          peer({kSyn, 2, 2}, "ACK 3/5; 2 taken"), peer({kSyn, 2, 2}, "ACK 3/5")}},
        {"both open, and our SYN-ACK is lost",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"),
          runs(1, "SYN 2/2 at 1"), peer({0, 2, 2, 1}, "DATA 3/3; ESTABLISHED; 1 taken"),
          runs(1, "SYN 2/3 at 1"), peer({0, 2, 4}, ""), runs(90, "")}},
        {"packets for no connection", {peer({0, 5, 9, 1}, "RST 9"), peer({kRst, 5, 0}, "")}},
        {"SYNs that make no sense",
         {syn({77, 0, UINT64_MAX, 0, kSyn, 32}), syn({77, 0, UINT64_MAX - 32, 0, kSyn, 32}),
          syn({0, 0, 1, 0, kSyn, 32}), syn({77, 0, 1, 0, kSyn | kRst, 32}),
          syn({77, 0, 1, 5, kSyn, 32})}},
        {"a window of nothing",
         {sends("SYN 1/0; SYN_SENT"), peer({kSyn, 1, 2, 0, 0}, "DATA 2/2; ESTABLISHED"), sends(""),
          peer({0, 1, 3, 0, 0}, "DATA 3/2")}},
        {"a message of no bytes ends its packet", {kPeerOpens, fragment(2, {}, "ACK 1/3")}},
        {"a reset with a message under way",
         {kPeerOpens, sends("DATA 2/2"), sends(""), peer({0, 1, 3}, "DATA 3/2"),
          peer({kRst, 2, 0}, "SYN 2/0; SYN_SENT"), runs(1, "SYN 2/0 at 1"),
          peer({kSyn, 40, 3}, "DATA 3/41; ESTABLISHED")}},
        {"a reset with half a message",
         {kPeerOpens, fragment(2, {2000, 2, 0}, "ACK 1/3"),
          peer({kRst, 3, 0}, "CLOSED; in lost 1412")}},
        {"a fragment that isn't in its place",
         {kPeerOpens, fragment(2, {4236, 2, 0}, "ACK 1/3"),
          fragment(3, {4236, 2, 2824}, "ACK 1/4; in lost 4236"),
          fragment(4, {4236, 2, 2824}, "ACK 1/5"), peer({0, 5, 2, 1}, "ACK 1/6; 1 taken")}},
        {"a message beyond what one peer may have",
         {kPeerOpens,
          fragment(2, {kMostReassemblyPeerBytes + 1, 2, 0}, "ACK 1/3; in lost 67174401")}},
        {"a message beyond what is left of all peers'",
         {kLittleRoom, kPeerOpens, fragment(2, {4236, 2, 0}, "ACK 1/3"),
          fragment(3, {4236, 2, 1412}, "ACK 1/4; in lost 4236")}},
        {"a fragment's number taken by another packet",
         {kPeerOpens, fragment(2, {4236, 2, 0}, "ACK 1/3"),
          peer({0, 3, 2, 1}, "ACK 1/4; 1 taken; in lost 4236"),
          fragment(4, {4236, 2, 2824}, "ACK 1/5")}},
        {"the first fragment of a message that was given up",
         {kPeerOpens, fragment(4, {4236, 2, 2824}, "ACK 1/2"), peer({0, 3, 2, 1}, "ACK 1/2"),
          fragment(2, {4236, 2, 0}, "ACK 1/5; 1 taken; in lost 4236"),
          peer({kRst, 5, 0}, "CLOSED")}},
        {"a message given up at a later fragment",
         {kPeerOpens, fragment(4, {4236, 2, 1412}, "ACK 1/2; in lost 4236"),
          fragment(2, {4236, 2, 0}, "ACK 1/3"), fragment(3, {4236, 2, 1412}, "ACK 1/5"),
          peer({0, 5, 2, 1}, "ACK 1/6; 1 taken")}},
        {"what is held for numbers that don't come any more",
         {kPeerOpens, peer({0, 3, 2, 1}, "ACK 1/2"), kNumbersJump,
          peer({0, 34, 2, 1}, "ACK 1/35; 1 taken")}},
        {"a send while we close, and the peer goes on",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"),
          peer({0, 2, 2, 1}, "ACK 2/3; 1 taken"), sends(""), peer({0, 2, 3}, "FIN_WAIT_2"),
          runs(1, "ACK 2/3 at 1"), peer({0, 3, 3, 1}, "ACK 2/4; 1 taken"),
          peer({kFin, 4, 3}, "ACK 2/5, SYN 1/0; SYN_SENT"),
          peer({kSyn, 1, 2}, "DATA 2/2; ESTABLISHED")}},
        {"a FIN before what the peer sent earlier, while we close",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"), peer({kFin, 4, 3}, "FIN_WAIT_2"),
          peer({0, 3, 3, 1}, "ACK 2/2"), peer({0, 2, 3, 1}, "ACK 2/5; TIME_WAIT; 2 taken")}},
        {"a flush, and no more is taken",
         {kOpens, sends("DATA 3/2"), sends("", true), closes("DATA! 4/2"), peer({0, 2, 4, 1}, ""),
          runs(1, "DATA! 4/2 at 1"), peer({kSyn, 1, 0}, ""), peer({0, 1, 5}, "FIN! 5/2; LAST_ACK"),
          ends("CLOSED")}},
        {"a flush, and the peer is silent",
         {kOpens, sends("DATA 3/2"), closes(""),
          runs(20, "DATA! 3/2 at 1, DATA! 3/2 at 3, DATA! 3/2 at 7"),
          ends("RST 4; CLOSED; out lost 8")}},
        {"what is delayed leaves on a tick",
         {kOpens, runs(0.15, ""), sends("", true), runs(0.05, "DATA 3/2 at 0.05")}},
        {"the linger",
         {kPeerOpens, runs(600, "FIN 2/2 at 600; FIN_WAIT_1"),
          peer({kFin, 2, 3}, "ACK 2/3; TIME_WAIT"), runs(0.49, ""), runs(0.01, "CLOSED")}},
        {"a deadline that becomes the next one",
         {sends("SYN 1/0; SYN_SENT"), runs(3, "SYN 1/0 at 1, SYN 1/0 at 3"), kOtherPeerOpens,
          sends("DATA 2/2"), runs(1, "DATA 2/2 at 1")}},
        {"a packet within the last 300 seconds",
         {kPeerOpens, runs(299, ""), peer({0, 2, 2, 1}, "ACK 1/3; 1 taken"), runs(300, ""),
          runs(1, "FIN 2/3 at 1; FIN_WAIT_1")}},
        {"the fourth acknowledgement of a number",
         {kOpens, sends("DATA 3/2"), sends("DATA 4/2"), peer({0, 1, 3}, ""), peer({0, 1, 3}, ""),
          peer({0, 1, 3}, ""), peer({0, 1, 3}, "DATA 3/2")}},
    };
    for (const auto& [name, steps] : stories) {
        SCOPED_TRACE(name);
        CoreWire wire;
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE(i);
            steps[i].act(wire);
            EXPECT_EQ(wire.done(), steps[i].done);
        }
    }
}

// "700 1412@0 21@1412 | 5": the bytes of each packet, and where in its message a fragment begins;
// packets after the bar are delayed.
std::string shapeOf(const SendBuffer& buffer) {
    std::string text;
    for (uint32_t i = 0; i < buffer.packets->count; ++i) {
        const auto& packet = *static_cast<const OutPacket*>(
            buffer.packets->slots[EntryRing_Slot(buffer.packets, i)]);
        if (i == buffer.packets->count - buffer.delayed) text += "| ";
        text += std::to_string(packet.length);
        if (packet.isFragment) text += '@' + std::to_string(packet.fragment.offset);
        if (i + 1 != buffer.packets->count) text += ' ';
    }
    return text;
}

TEST(EndpointCore, PacksAsManyMessagesAsAPacketTakes) {
    struct Call {
        std::vector<uint32_t> sizes;
        bool delays = false;
    };
    const struct {
        std::vector<Call> calls;
        const char* shape;
    } rows[] = {
        {{{{1432}}}, "1432"},
        {{{{1433}}}, "1412@0 21@1412"},
        {{{{2824}}, {{12}}}, "1412@0 1412@1412 12"},
        {{{{700, 732, 12}}}, "1432 12"},
        {{{{700, 733, 12}}}, "700 745"},
        {{{{12, 1433, 12}}}, "12 1412@0 21@1412 12"},
        {{{{100}}, {{100, 1232, 100}}, {{1332}}}, "1432 1432"},
        {{{{1074}, true}}, "1074"},
        {{{{600}, true}, {{900}, true}}, "600 | 900"},
        {{{{600, 900}, true}, {{12}, true}}, "| 600 912"},
        {{{{1433, 600}, true}}, "1412@0 21@1412 | 600"},
        {{{{600}}, {{100}, true}}, "600 | 100"},
        {{{{600}, true}, {{100}}}, "700"},
    };
    for (const auto& [calls, shape] : rows) {
        CoreWire wire;
        (void)wire.send();
        wire.take({kSyn, 1, 2, 0, 0});  // a window of nothing: what follows waits
        for (const auto& [sizes, delays] : calls) {
            std::vector<HeldMessage> held;
            std::vector<pelmoMsg*> messages;
            for (const uint32_t size : sizes)
                messages.push_back(held.emplace_back(netMessage(size, 1)).get());
            EXPECT_EQ(wire.sendAll(messages, delays), kStatusSuccess);
        }
        const ReliableConnection* const connection = connectionFind(&wire.core, wire.address());
        EXPECT_EQ(shapeOf(connection->send), std::string("8 ") + shape);
    }
}

TEST(EndpointCore, NeverWritesIntoTheCallersBuffer) {
    CoreWire wire;
    Buffer* const large = bufferCreate(kMostBlockBytes);
    std::memset(large->data, 'x', large->size);
    netWriteMessage(large->data, 300, 1);
    pelmoMsg* message = nullptr;
    ASSERT_EQ(msgCreateOverBuffer(&message, large, 0), kStatusSuccess);
    bufferRelease(large);
    for (const bool delays : {false, true})
        EXPECT_EQ(wire.sendAll({message}, delays), kStatusSuccess);
    EXPECT_EQ(wire.send(), kStatusSuccess);
    EXPECT_EQ(std::string(large->data + 300, large->data + large->size),
              std::string(large->size - 300, 'x'));
    msgRelease(message);
}

TEST(SendWindow, GrowsToTheThresholdAndThenSlowly) {
    SendWindow window;
    windowInit(&window, 32);
    window.sndNxt = 2;  // the SYN
    windowOpened(&window, 2, 30);
    const struct {
        uint64_t sndNxt, ack, sndLimit, cwnd, ssthresh;
    } steps[] = {
        {4, 5, 4, 2, kNoThreshold},  // not sent yet
        {4, 3, 7, 3, kNoThreshold},  {7, 3, 11, 4, kNoThreshold},
        {7, 3, 12, 5, kNoThreshold}, {7, 3, 12, 5, 2},  // sent again; half of what was in flight
        {8, 8, 10, 2, kNoThreshold}, {10, 9, 13, 3, kNoThreshold},
    };
    for (const auto& step : steps) {
        window.sndNxt = step.sndNxt;
        (void)windowAcknowledge(&window, step.ack);
        EXPECT_TRUE(window.sndLimit == step.sndLimit && window.cwnd == step.cwnd &&
                    window.ssthresh == step.ssthresh)
            << &step - steps << ": " << window.sndLimit << " " << window.cwnd;
    }
    window.ssthresh = 3;
    for (const uint64_t cwnd : {3, 3, 3, 4}) {
        (void)windowAcknowledge(&window, ++window.sndNxt);
        EXPECT_EQ(window.cwnd, cwnd);
    }
}

TEST(EndpointCore, ReportsEachPeersLossAtItsClose) {
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
    for (wire.port = 1; wire.port <= 6; ++wire.port) {
        EXPECT_EQ(wire.notices, 0u);
        wire.take({kSyn, 1, 0});
        if (wire.port == 1) wire.take({0, 1, 2});  // confirmed
        if (wire.port == 2) (void)wire.send();     // wanted by this side, too
    }
    EXPECT_EQ(wire.notices, kNoticeHalfOpen);
    EXPECT_EQ(wire.lost, "");
    for (wire.port = 1; wire.port <= 6; ++wire.port)
        EXPECT_EQ(wire.state() == kClosed, wire.port == 3) << wire.port;
    EXPECT_EQ(wire.core.halfOpen, 3u);
    wire.run(100);
    EXPECT_EQ(wire.core.halfOpen, 0u);
}

}  // namespace
