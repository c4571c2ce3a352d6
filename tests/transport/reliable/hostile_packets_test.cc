// Packets that somebody makes up. From outside they neither break a live connection nor slow it; a
// peer with a connection of its own harms none but that; and memory stays bounded.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "lib/containers/hash.h"
#include "tests/support/reliable_net.h"

namespace {

constexpr uint64_t kHalfOpenBytes = 4 << 20;  // 1,024 connections and their tables
constexpr uint64_t kRecordBytes = 64 << 10;   // of one peer, beside what it has sent
constexpr double kEvery = 0.0002;             // seconds between made-up packets
constexpr uint32_t kAtATime = 4;
constexpr uint32_t kFlowMessages = 2'000;

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const PacketHeader& header, const FragmentOption* fragment, size_t payloadBytes) {
    uint8_t head[kMostHeadBytes];
    const uint32_t headBytes = packetWriteHead(head, header, fragment);
    Bytes bytes(head, head + headBytes);
    bytes.resize(headBytes + payloadBytes, 'x');
    return bytes;
}

PeerAddress anyAddress(SeededRandom& random) {
    return {htonl(0x0b000000 + random.below(1 << 24)),
            htons(static_cast<uint16_t>(1 + random.below(65535)))};
}

// What an outsider may know: the last header of a live flow, but for its ids.
using MakeUp = Bytes (*)(SeededRandom& random, PacketHeader seen);

template <uint8_t kFlags>
Bytes flagged(SeededRandom& random, PacketHeader header) {
    header.sourceId = static_cast<uint32_t>(random.engine());
    header.destId = static_cast<uint32_t>(random.engine());
    header.flags = kFlags;
    header.seq += random.below(40) - 4;
    return bytesOf(header, nullptr, kFlags == 0 ? random.below(2) * 100 : 0);
}

Bytes fragmentOf4Gb(SeededRandom& random, PacketHeader header) {
    header.sourceId = static_cast<uint32_t>(random.engine());
    const FragmentOption fragment = {UINT32_MAX, header.seq, 0};
    return bytesOf(header, &fragment, kFragmentPayloadBytes);
}

Bytes dataOfAnEarlierPeer(SeededRandom& random, PacketHeader header) {
    header.sourceId += 1 + random.below(9);
    return bytesOf(header, nullptr, 50);
}

Bytes farNumbers(SeededRandom& random, PacketHeader header) {
    header.seq = UINT64_MAX - random.below(3);
    header.ack = UINT64_MAX - random.below(3);
    return flagged<0>(random, header);
}

Bytes synOfAnyPeer(SeededRandom& random, PacketHeader) {
    return bytesOf({static_cast<uint32_t>(random.engine()), 0, 1, 0, kFlagSyn, kReceiveWindow},
                   nullptr, 0);
}

Bytes synOfALivePeer(SeededRandom& random, PacketHeader header) {
    header.ack = 0;
    return flagged<kFlagSyn>(random, header);
}

Bytes noise(SeededRandom& random, PacketHeader) {
    Bytes bytes(random.below(kMostDatagramBytes + 100));
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random.engine());
    return bytes;
}

const struct {
    const char* name;
    bool fromPeer;  // bears the peer's own address
    MakeUp make;
} kMadeUp[] = {
    {"data", false, flagged<0>},
    {"resets", false, flagged<kFlagRst>},
    {"ends", false, flagged<kFlagFin>},
    {"answers to no SYN", false, flagged<kFlagSyn>},
    {"4 GB", false, fragmentOf4Gb},
    {"SYNs of many", false, synOfAnyPeer},
    {"noise", false, noise},
    {"data of the peer", true, flagged<0>},
    {"resets of the peer", true, flagged<kFlagRst>},
    {"ends of the peer", true, flagged<kFlagFin>},
    {"closing peer", true, flagged<kFlagCloseNotice>},
    {"its answers to no SYN", true, flagged<kFlagSyn>},
    {"its 4 GB", true, fragmentOf4Gb},
    {"its far numbers", true, farNumbers},
    {"data of an earlier peer", true, dataOfAnEarlierPeer},
    {"SYN of a live peer", true, synOfALivePeer},
};

struct Flow {
    double seconds = 0;
    uint32_t arrived = 0;
    uint64_t heapGrowth = 0;
};

// kFlowMessages from host 0 to host 1, with made-up packets for the receiver meanwhile.
Flow runFlow(size_t attack) {
    ReliableNet net(1);
    for (uint32_t host = 0; host < 2; ++host) {
        netAddHost(net);
        EXPECT_TRUE(netOpen(net, host));
    }
    NetHost& receiver = *net.hosts[1];
    Flow flow;
    PacketHeader seen = {};
    net.watch.sent = [&](NetHost& host, const PeerAddress&, const Packet& packet) {
        if (host.index == 0 && (packet.header.flags & kFlagSyn) == 0) seen = packet.header;
    };
    net.watch.message = [&](NetHost&, const PeerAddress&, pelmoMsg* message) {
        EXPECT_EQ(netMessageName(message), flow.arrived++);
        flow.seconds = net.now - kNetBegin;
    };
    net.watch.lost = [](NetHost&, const LossReport&) { ADD_FAILURE() << "a loss"; };
    const uint64_t before = heapBytes();
    SeededRandom random{std::mt19937_64(7)};
    uint32_t sent = 0;
    while (flow.arrived < kFlowMessages && net.now < kNetBegin + 10 && net.fault.empty()) {
        for (uint32_t i = 0; i < 4 && sent < kFlowMessages; ++i, ++sent) {
            const HeldMessage message = netMessage(1'400, sent);
            pelmoMsg* const one = message.get();
            EXPECT_EQ(netSend(net, 0, receiver.address, {&one, 1}, false), kStatusSuccess);
        }
        netRun(net, net.now + kEvery);
        if (flow.arrived == 0 || attack >= std::size(kMadeUp)) continue;
        for (uint32_t i = 0; i < kAtATime; ++i) {
            const PeerAddress from =
                kMadeUp[attack].fromPeer ? net.hosts[0]->address : anyAddress(random);
            netInject(net, from, receiver.address, kMadeUp[attack].make(random, seen));
        }
        flow.heapGrowth = std::max(flow.heapGrowth, heapBytes() - std::min(before, heapBytes()));
    }
    EXPECT_EQ(net.fault, "");
    return flow;
}

TEST(ReliableHostile, OutsidersDontSlowALiveFlow) {
    const Flow alone = runFlow(std::size(kMadeUp));
    ASSERT_EQ(alone.arrived, kFlowMessages);
    for (size_t attack = 0; attack < std::size(kMadeUp); ++attack) {
        SCOPED_TRACE(kMadeUp[attack].name);
        const Flow flow = runFlow(attack);
        EXPECT_EQ(flow.arrived, kFlowMessages);
        EXPECT_LE(flow.seconds, alone.seconds);
        EXPECT_LE(flow.heapGrowth, alone.heapGrowth + kHalfOpenBytes);
    }
}

// A peer that opens a connection as it should and then sends what it likes, in sequence.
struct Intruder {
    ReliableNet net{1};
    SeededRandom random{std::mt19937_64(7)};
    PacketHeader answer = {};  // the last one
    PacketHeader header = {77, 0, 1, 0, kFlagSyn, kReceiveWindow};
    PeerAddress own = {htonl(0x0b000001), htons(99)};
    uint64_t before = 0;
    uint64_t most = 0;
    uint64_t sentBytes = 0;

    Intruder() {
        netAddHost(net);
        EXPECT_TRUE(netOpen(net, 0));
        net.watch.sent = [this](NetHost&, const PeerAddress& to, const Packet& packet) {
            if (to == own) answer = packet.header;
        };
        before = heapBytes();
    }

    void connect(uint16_t port) {
        own.port = htons(port);
        header = {77, 0, 1, 0, kFlagSyn, kReceiveWindow};
        put(bytesOf(header, nullptr, 0));
        EXPECT_EQ(answer.flags & kFlagSyn, kFlagSyn);
        header = {77, answer.sourceId, 1, answer.seq + 1, 0, kReceiveWindow};
        put(bytesOf(header, nullptr, 0));
        header.seq = 2;
    }

    void put(const Bytes& bytes) {
        netInject(net, own, net.hosts[0]->address, bytes);
        netRun(net, net.now + 1e-6);
        sentBytes += bytes.size();
        most = std::max(most, heapBytes() - std::min(before, heapBytes()));
    }

    void putFragment(const FragmentOption& fragment, size_t bytes) {
        header.ack = answer.seq + 1;
        put(bytesOf(header, &fragment, bytes));
        ++header.seq;
    }
};

// Long messages without their last fragments, from peers that do all else by the rules.
TEST(ReliableHostile, MessagesWithoutEndHoldBoundedMemory) {
    constexpr uint32_t kPeers = 5;
    constexpr uint32_t kMessageBytes = 0x100000;
    Intruder intruder;
    ReassemblyShare& share = intruder.net.hosts[0]->core.share;
    share.most = (kPeers - 1) * kMessageBytes;
    uint32_t losses = 0;
    intruder.net.watch.lost = [&](NetHost&, const LossReport&) { ++losses; };
    for (uint16_t peer = 0; peer < kPeers; ++peer) {
        intruder.connect(100 + peer);
        const uint64_t first = intruder.header.seq;
        for (uint32_t at = 0; at + kFragmentPayloadBytes < kMessageBytes;
             at += kFragmentPayloadBytes) {
            intruder.putFragment({kMessageBytes, first, at}, kFragmentPayloadBytes);
            ASSERT_LE(share.bytes, share.most);
        }
        EXPECT_LE(intruder.most, (peer + 1) * (kMessageBytes + kRecordBytes));
    }
    EXPECT_EQ(losses, 1u);  // the fifth has no room
    intruder.connect(99);
    intruder.putFragment({kMostReassemblyPeerBytes + 1, intruder.header.seq, 0},
                         kFragmentPayloadBytes);
    EXPECT_EQ(losses, 2u);
    EXPECT_EQ(intruder.net.fault, "");
}

}  // namespace
