// What a packet does in each state of a connection.

#include <gtest/gtest.h>

#include "tests/support/core_wire.h"

namespace {

constexpr uint8_t kFin = kFlagFin;
constexpr uint8_t kNote = kFlagCloseNotice;

// Brings the connection there. Until then the peer sent SYN 1, the core SYN 1; numbers from 2 on
// are free. In kCloseWait one message is under way.
void reach(CoreWire& wire, ConnectionState state) {
    if (state == kSynSent) {
        (void)wire.send();
    } else {
        wire.take({kFlagSyn, 1, 0});
        if (state != kSynReceived) wire.take({0, 1, 2});
        if (state == kCloseWait) (void)wire.send();
        if (state == kCloseWait || state == kLastAck) wire.take({kFin, 2, 2});
    }
    const bool closes =
        state == kFinWait1 || state == kFinWait2 || state == kClosing || state == kTimeWait;
    if (closes) wire.run(600);
    if (state == kFinWait2 || state == kTimeWait) wire.take({0, 1, 3});
    if (state == kTimeWait) wire.take({kFin, 2, 3});
    if (state == kClosing) wire.take({kFin, 2, 2});
    ASSERT_EQ(wire.state(), state);
    (void)wire.done();
}

constexpr uint8_t kOwnSend = 0x80;  // no packet: this end sends

struct Row {
    ConnectionState state;
    WirePacket packet;
    const char* done;
    const char* opens = nullptr;  // of a peer that starts again, with another id: what opens it
};

TEST(ReliableStates, EachRowDoesWhatItSays) {
    const Row rows[] = {
        // No answer to our SYN: SYN-ACK alone opens.
        {kSynSent, {0, 1, 2}, ""},
        {kSynSent, {kFlagSyn, 1, 2}, "DATA 2/2; ESTABLISHED"},
        {kSynSent, {kFlagSyn, 1, 3}, "RST 3"},
        {kSynSent, {kFlagSyn, 1, 0}, "SYN 2/2; SYN_RECEIVED"},

        {kSynReceived, {0, 1, 2}, "ESTABLISHED"},
        {kSynReceived, {0, 2, 2, 1}, "ACK 1/3; ESTABLISHED; 1 taken"},
        {kSynReceived, {0, 2, 1, 1}, "RST 1"},
        {kSynReceived, {0, 1, 3}, "RST 3"},
        {kSynReceived, {kFin, 2, 2}, "ACK 1/3, FIN 2/3; LAST_ACK"},
        {kSynReceived, {kFlagSyn, 1, 0}, "SYN 1/2"},  // ours was lost
        {kSynReceived, {kFlagRst, 2, 0}, "CLOSED"},

        {kEstablished, {0, 2, 2, 2}, "ACK 1/3; 2 taken"},
        {kEstablished, {0, 3, 2, 1}, "ACK 1/2"},  // a gap before it
        {kEstablished, {0, 33, 2, 1}, "ACK 1/2"},
        {kEstablished, {0, 34, 2, 1}, "ACK 1/2"},
        {kEstablished, {0, 1, 2, 1}, "ACK 1/2"},
        {kEstablished, {0, 1, 3}, ""},  // acknowledges what wasn't sent
        {kEstablished, {kFin, 2, 2}, "ACK 1/3, FIN 2/3; LAST_ACK"},
        {kEstablished, {kFin, 2, 2, 1}, "ACK 1/3, FIN 2/3; LAST_ACK; 1 taken"},
        {kEstablished, {kFin, 3, 2}, ""},
        {kEstablished, {kNote, 1, 2}, "FIN 2/2; FIN_WAIT_2"},
        {kEstablished, {kNote, 2, 2, 1}, "FIN 2/3, ACK 2/3; FIN_WAIT_2; 1 taken"},
        {kEstablished, {kFin | kNote, 2, 2}, "FIN 2/3, ACK 2/3; TIME_WAIT"},
        {kEstablished, {kFlagSyn, 1, 0}, "ACK 1/2"},
        {kEstablished, {kFlagSyn, 2, 2}, "ACK 1/3"},  // where both ends opened
        {kEstablished, {kFlagRst, 2, 0}, "CLOSED"},
        {kEstablished, {kFlagRst, 33, 0}, "CLOSED"},
        {kEstablished, {kFlagRst, 34, 0}, ""},
        {kEstablished, {kFlagRst, 1, 0}, ""},

        {kFinWait1, {0, 1, 3}, "FIN_WAIT_2"},
        {kFinWait1, {0, 2, 2, 1}, "ACK 2/3; 1 taken"},
        {kFinWait1, {kFin, 2, 2}, "ACK 2/3; CLOSING"},
        {kFinWait1, {kFin, 2, 3}, "ACK 2/3; TIME_WAIT"},
        {kFinWait1, {kFin, 3, 3}, "FIN_WAIT_2"},  // not all that the peer sent is here
        {kFinWait1, {kNote, 1, 2}, "FIN_WAIT_2"},

        {kFinWait2, {0, 2, 3, 1}, "ACK 2/3; 1 taken"},
        {kFinWait2, {kFin, 2, 3}, "ACK 2/3; TIME_WAIT"},
        {kFinWait2, {kFin, 3, 3}, ""},

        {kClosing, {0, 2, 3}, "TIME_WAIT"},
        {kClosing, {0, 3, 3, 1}, "TIME_WAIT"},  // nothing comes after a FIN
        {kClosing, {kFin, 2, 2}, "ACK 2/3"},

        {kCloseWait, {0, 2, 3}, "FIN 3/3; LAST_ACK"},
        {kCloseWait, {0, 3, 2, 1}, ""},
        {kCloseWait, {kFin, 2, 2}, "ACK 2/3"},
        {kCloseWait, {kNote, 2, 2}, "FIN 3/3; LAST_ACK; out lost 8"},
        {kCloseWait, {kFlagRst, 3, 0}, "SYN 1/0; SYN_SENT"},

        {kLastAck, {0, 2, 3}, "CLOSED"},
        {kLastAck, {kFin, 2, 2}, "ACK 2/3"},
        {kLastAck, {kFlagRst, 3, 0}, "CLOSED"},

        {kTimeWait, {kFin, 2, 3}, "ACK 2/3"},
        {kTimeWait, {0, 3, 3, 1}, ""},

        {kSynSent, {kFlagSyn, 7, 0}, "SYN 2/8; SYN_RECEIVED", "DATA 3/8; ESTABLISHED"},
        {kSynReceived, {kFlagSyn, 7, 0}, "SYN 1/8", "ESTABLISHED"},
        {kEstablished, {kFlagSyn, 7, 0}, "ACK 1/2", ""},
        {kFinWait1, {kFlagSyn, 7, 0}, "ACK 2/2", ""},
        {kFinWait2, {kFlagSyn, 7, 0}, "ACK 2/2", ""},
        {kClosing, {kFlagSyn, 7, 0}, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},
        {kCloseWait, {kFlagSyn, 7, 0}, "SYN 1/8; SYN_RECEIVED", "DATA 2/8; ESTABLISHED"},
        {kLastAck, {kFlagSyn, 7, 0}, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},
        {kTimeWait, {kFlagSyn, 7, 0}, "SYN 1/8; SYN_RECEIVED", "ESTABLISHED"},

        {kSynSent, {kOwnSend, 0, 0}, ""},
        {kSynReceived, {kOwnSend, 0, 0}, ""},
        {kEstablished, {kOwnSend, 0, 0}, "DATA 2/2"},
        {kFinWait1, {kOwnSend, 0, 0}, "SYN 1/0; SYN_SENT"},
        {kFinWait2, {kOwnSend, 0, 0}, "SYN 1/0; SYN_SENT"},
        {kClosing, {kOwnSend, 0, 0}, "SYN 1/0; SYN_SENT"},
        {kCloseWait, {kOwnSend, 0, 0}, "DATA 3/3"},
        {kLastAck, {kOwnSend, 0, 0}, "SYN 1/0; SYN_SENT"},
        {kTimeWait, {kOwnSend, 0, 0}, "SYN 1/0; SYN_SENT"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(CoreWire::nameOf(row.state)) + " flags " +
                     std::to_string(row.packet.flags) + " seq " + std::to_string(row.packet.seq) +
                     " ack " + std::to_string(row.packet.ack));
        CoreWire wire;
        reach(wire, row.state);
        const uint32_t formerId = wire.coreIds[wire.port];
        if (row.opens != nullptr) ++wire.life;
        if (row.packet.flags == kOwnSend) {
            (void)wire.send();
        } else {
            wire.take(row.packet);
        }
        EXPECT_EQ(wire.done(), row.done);
        if (row.opens == nullptr) continue;
        const bool changesId = *row.opens != 0 && row.state != kSynSent;
        EXPECT_EQ(wire.coreIds[wire.port] != formerId, changesId);
        if (*row.opens != 0) wire.take({0, 7, 2});
        EXPECT_EQ(wire.done(), row.opens);
    }
}

// Packets 20 to 31 are in flight as the peer begins to miss some of them: each acknowledgement ends
// at the next one that it misses.
TEST(ReliableStates, SendEachLossOfAWindowAgainAtOnce) {
    constexpr uint64_t kTick = 0;  // the timer sends again, a second after the last new packet
    const struct {
        const char* what;
        std::vector<uint64_t> acks;
        const char* done;
    } cases[] = {
        {"one loss", {20, 20, 20, 20, 32}, "DATA 20/2"},
        {"three losses", {20, 20, 20, 20, 24, 28, 32}, "DATA 20/2, DATA 24/2, DATA 28/2"},
        {"the last packet", {20, 20, 20, 20, 31, 32}, "DATA 20/2, DATA 31/2"},
        {"lost again", {20, 20, 20, 20, 24, 24, 24, 24, 32}, "DATA 20/2, DATA 24/2, DATA 24/2"},
        {"then the timer", {20, 20, 20, 20, kTick, 24, 32}, "DATA 20/2, DATA 20/2 at 1, DATA 24/2"},
        {"the timer alone", {kTick, 24, 32}, "DATA 20/2 at 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CoreWire wire;
        reach(wire, kEstablished);
        for (uint64_t number = 2; number < 20; ++number) {
            (void)wire.send();
            wire.take({0, 1, number + 1});
        }
        for (uint64_t number = 20; number < 32; ++number)
            (void)wire.send();
        (void)wire.done();
        for (const uint64_t ack : c.acks) {
            if (ack == kTick) wire.run(1);
            if (ack != kTick) wire.take({0, 1, ack});
        }
        EXPECT_EQ(wire.done(), c.done);
        (void)wire.send();  // recovery is over
        EXPECT_EQ(connectionFind(&wire.core, wire.address())->window.recoveryEnd, 0u);
        wire.take({0, 1, 33});
        EXPECT_EQ(wire.done(), "DATA 32/2");
    }
}

// Of any address, or of an id that isn't that of either end, and the last numbers that were seen:
// nothing of them is taken or kept, and the conversation goes on.
TEST(ReliableStates, GoOnWhateverOutsidersMakeUp) {
    constexpr uint8_t kFlags[] = {0, kFin, kNote, kFlagRst, kFlagSyn};
    Random random = {};
    CoreWire wire;
    reach(wire, kEstablished);
    uint64_t next = 2;
    for (int round = 0; round < 20'000; ++round) {
        const uint32_t kind = random();
        PacketHeader header = {wire.peerId(), wire.coreIds[1], next + kind % 40 - 4, next, 0, 32};
        header.flags = kFlags[kind / 64 % 5];
        if (kind % 7 == 0) header.seq = header.ack = UINT64_MAX - random() % 3;
        const bool isSyn = header.flags == kFlagSyn;
        if (isSyn && kind % 3 == 0) header.ack = 0;
        const bool knowsOurs = kind % 4 == 0 && header.flags != kFlagRst && !isSyn;
        const bool knowsTheirs = kind % 4 == 1 && !isSyn;
        if (!knowsTheirs) header.sourceId += 1 + random() % 9;
        if (!knowsOurs) header.destId += 1 + random() % 1'000;
        const FragmentOption fragment = {UINT32_MAX, header.seq, 0};
        const bool isFragment = kind % 5 == 0 && header.flags == 0;
        const std::vector<uint8_t> payload(isFragment ? kFragmentPayloadBytes : kind % 2 * 100);
        if (kind % 3 == 1) wire.port = static_cast<uint16_t>(2 + random() % 9'000);
        wire.takeRaw(header, isFragment ? &fragment : nullptr, payload);
        wire.port = 1;
        if (round % 10 != 0) continue;
        (void)std::exchange(wire.sent, "");
        (void)wire.send();
        wire.take({0, next, next + 1, 1});
        const std::string now = std::to_string(next++);
        ASSERT_EQ(wire.done(), "DATA " + now + "/" + now + ", ACK " + now + "/" +
                                   std::to_string(next) + "; 1 taken");
    }
    EXPECT_EQ(wire.core.share.bytes, 0u);
    EXPECT_LE(wire.core.halfOpen, wire.core.mostHalfOpen);
}

}  // namespace
