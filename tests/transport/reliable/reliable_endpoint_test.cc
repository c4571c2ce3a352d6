// Endpoints on real sockets, against each other and against a peer that writes its packets by hand.

#include "lib/transport/reliable/reliable_endpoint.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

#include "lib/base/clock.h"
#include "lib/containers/dpa.h"
#include "lib/msg/buffer.h"
#include "lib/msg/message_typed.h"
#include "lib/pelmo.h"
#include "lib/runtime/library.h"
#include "lib/transport/reliable/datagram_socket.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/test.h"

namespace {

constexpr double kNoLimit = std::numeric_limits<double>::infinity();

// Names its sender and its place in the row of what that sent to one peer.
Message numbered(uint32_t from, uint64_t number, size_t padBytes = 0) {
    Message message = newMessage();
    const Bytes pad(padBytes + 1, 0x5a);
    EXPECT_EQ(pelmoMsg_AddU32(message.get(), "from", from, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_AddU64(message.get(), "n", number, 0), kStatusSuccess);
    EXPECT_EQ(
        pelmoMsg_AddOpaque(message.get(), "pad", pad.data(), static_cast<uint32_t>(padBytes), 0),
        kStatusSuccess);
    return message;
}

struct End : NoCopy {
    ReliableEndpoint* endpoint = nullptr;
    std::mutex mutex;
    std::map<uint32_t, uint64_t> next;  // number expected from each sender
    std::atomic<uint64_t> taken = 0;
    std::atomic<uint64_t> outOfOrder = 0;
    std::atomic<uint64_t> lost = 0;
    std::atomic<bool> closesItself = false;

    End() = default;
    explicit End(uint16_t port) { EXPECT_EQ(open(port), kStatusSuccess); }
    ~End() { close(); }

    pelmoStatus open(uint16_t port) {
        return ReliableEndpoint_Open(&endpoint, kLoopbackHost, port, onData, onLoss,
                                     reinterpret_cast<uintptr_t>(this));
    }
    EndpointUnsent close(double deadline = 0) {
        EndpointUnsent unsent = {};
        ReliableEndpoint* const closed = std::exchange(endpoint, nullptr);
        EXPECT_TRUE(closed == nullptr || ReliableEndpoint_Close(closed, deadline, &unsent));
        return unsent;
    }
    [[nodiscard]] uint16_t port() const { return ReliableEndpoint_Port(endpoint); }

    pelmoStatus send(uint16_t port, pelmoMsg* message) const {
        return ReliableEndpoint_Send(endpoint, kLoopbackHost, port, {&message, 1}, false);
    }

  private:
    static void onData(uint32_t address, Dpa* messages, uintptr_t closure) {
        auto* const self = reinterpret_cast<End*>(closure);
        EXPECT_EQ(address, kLoopbackHost);
        for (uint32_t i = 0; i < messages->count; ++i)
            self->take(static_cast<pelmoMsg*>(messages->items[i]));
        if (!self->closesItself) return;
        self->close();
        self->closesItself = false;
    }
    void take(pelmoMsg* message) {
        uint32_t from = 0;
        uint64_t number = 0;
        (void)pelmoMsg_GetU32(message, "from", &from, 0);
        (void)pelmoMsg_GetU64(message, "n", &number, 0);
        msgRelease(message);
        const std::lock_guard guard(mutex);
        uint64_t& expected = next[from];
        if (number != expected) ++outOfOrder;
        expected = number + 1;
        ++taken;
    }
    static void onLoss(bool, uint32_t address, uint16_t, uint64_t, uintptr_t closure) {
        EXPECT_EQ(address, INADDR_LOOPBACK);
        ++reinterpret_cast<End*>(closure)->lost;
    }
};

struct ReliableEndpoints : testing::Test {
    ReliableEndpoints() { EXPECT_EQ(pelmo_Open(), kStatusSuccess); }
    ~ReliableEndpoints() override {
        if (libraryIsOpen()) pelmo_Close();
    }
};

// Each to its neighbours on both sides, as fast as it goes, so that senders wait for the road; for
// a second, or as many as RELIABLE_SECONDS says.
TEST_F(ReliableEndpoints, CarryEverythingBetweenEight) {
    constexpr uint32_t kEnds = 8;
    constexpr size_t kPads[] = {0, 100, 1400, 30, 5000, 200, 1412, 40'000};
    for (const bool disablesRuns : {false, true}) {
        if (disablesRuns) setenv("PELMO_DISABLE_UDP_SEGMENT", "1", 1);
        End ends[kEnds];
        for (End& end : ends)
            ASSERT_EQ(end.open(0), kStatusSuccess);
        unsetenv("PELMO_DISABLE_UDP_SEGMENT");
        std::atomic<bool> isOver = false;
        std::atomic<uint64_t> sent = 0;
        std::vector<std::thread> senders;
        for (uint32_t self = 0; self < kEnds; ++self) {
            senders.emplace_back([&, self] {
                for (uint64_t round = 0; !isOver; ++round) {
                    for (const uint32_t to : {(self + 1) % kEnds, (self + kEnds - 1) % kEnds}) {
                        const Message message = numbered(self, round, kPads[(round + to) % 8]);
                        EXPECT_EQ(ends[self].send(ends[to].port(), message.get()), kStatusSuccess);
                        ++sent;
                    }
                }
            });
        }
        const char* const seconds = std::getenv("RELIABLE_SECONDS");
        (void)poll(nullptr, 0, seconds != nullptr ? std::atoi(seconds) * 1'000 : 1'000);
        isOver = true;
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_TRUE(within(60, [&] {
            uint64_t taken = 0;
            for (const End& end : ends)
                taken += end.taken;
            return taken == sent;
        }));
        for (End& end : ends) {
            end.close(kNoLimit);
            EXPECT_TRUE(end.outOfOrder == 0 && end.lost == 0);
        }
    }
}

// Runs of equal datagrams for one of two peers, cut by the kernel or, where it refuses, one by one;
// and what can't be sent.
TEST(Datagrams, LeaveOneByOneAndInOrder) {
    constexpr uint32_t kSizes[] = {900, 900, 300, 900, 300, 300, 1464, 1464, 32, 33};
    for (const bool isRefused : {false, true}) {
        DatagramWire wires[2];
        auto sender = std::make_unique<DatagramSocket>();
        ASSERT_EQ(datagramOpen(sender.get(), kLoopbackHost, 0), kStatusSuccess);
        const int on = isRefused;  // without a checksum the kernel cuts nothing
        setsockopt(sender->handle, SOL_SOCKET, SO_NO_CHECK, &on, sizeof on);
        Buffer* const buffer = bufferCreate(2000);
        uint8_t number = 0;
        const auto addTo = [&](uint32_t address) {
            const std::array<uint8_t, 32> head = {number};
            const uint32_t size = kSizes[number % 10];
            datagramAdd(sender.get(), {address, htons(wires[number / 11 % 2].port)},
                        {.head = head,
                         .payload = {buffer->data, size - 32},
                         .buffer = buffer,
                         .isRepeat = number == 80});
            ++number;
        };
        while (number < 70)
            addTo(kLoopbackHost);
        while (SendBatch* const batch = datagramBegin(sender.get())) {
            while (number < 80)
                addTo(kLoopbackHost);
            EXPECT_EQ(datagramBegin(sender.get()), nullptr);
            if (number == 80) addTo(htonl(INADDR_BROADCAST));
            const bool isLast = batch->peers[batch->count - 1].address != kLoopbackHost;
            datagramSend(sender.get(), batch);
            EXPECT_TRUE(batch->failure.error == (isLast ? EACCES : 0) &&
                        batch->failure.isRepeat == isLast);
            datagramEnd(sender.get());
        }
        EXPECT_NE(sender->cutsRuns, isRefused);
        EXPECT_FALSE(bufferIsShared(buffer));
        bufferRelease(buffer);
        for (number = 0; number < 80; ++number) {
            uint8_t bytes[2000];
            const int handle = wires[number / 11 % 2].handle.number();
            EXPECT_EQ(recv(handle, bytes, sizeof bytes, MSG_DONTWAIT), kSizes[number % 10]);
            EXPECT_EQ(bytes[0], number);
        }
        datagramClose(sender.get());
    }
}

// Where the sender waits, and how that ends.
TEST_F(ReliableEndpoints, LetSendersWait) {
    for (const bool isRoomMade : {true, false}) {
        End end(0);
        DatagramWire wire;
        const Message message = numbered(1, 0, 1350);
        EXPECT_EQ(end.send(wire.port, message.get()), kStatusSuccess);
        const uint32_t id = wire.accept();
        (void)wire.read();
        std::atomic<int> queued = 0;
        std::atomic<bool> isLast = false, ended = false;
        pelmoStatus status = kStatusSuccess;
        ReliableEndpoint* const own = end.endpoint;
        ReliableEndpoint_Retain(own);
        std::thread sender([&, own] {
            pelmoMsg* const one = message.get();
            while (status == kStatusSuccess && !isLast) {
                status = ReliableEndpoint_Send(own, kLoopbackHost, wire.port, {&one, 1}, false);
                ++queued;
            }
            ended = true;
            ReliableEndpoint_Release(own);
        });
        // One more is under way by now.
        EXPECT_TRUE(within(20, [&] { return queued == 2733; })) << queued;
        EXPECT_FALSE(within(0.2, [&] { return queued != 2733; }));
        isLast = true;
        for (uint64_t ack = 3; isRoomMade && !ended; ++ack) {
            wire.write({DatagramWire::kId, id, 1, ack, 0});
            (void)wire.read();
        }
        end.close();
        sender.join();
        EXPECT_EQ(status, isRoomMade ? kStatusSuccess : kStatusDeliveryFailed);
    }
}

// A peer that takes one packet each half second takes more than five seconds for twelve.
TEST_F(ReliableEndpoints, FlushAsLongAsSomethingMoves) {
    const struct {
        bool closesLibrary;
        uint64_t messages;
        int pauseMs;
    } cases[] = {{false, 200, 0}, {true, 200, 0}, {true, 12, 500}};
    for (const auto& c : cases) {
        if (!libraryIsOpen()) {
            EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        }
        End end(0);
        DatagramWire wire;
        for (uint64_t number = 0; number < c.messages; ++number)
            EXPECT_EQ(end.send(wire.port, numbered(1, number, 1350).get()), kStatusSuccess);
        std::atomic<uint64_t> seen = 0;
        std::thread peer([&] {
            const uint32_t id = wire.accept();
            uint8_t flags = 0;
            while (seen < c.messages) {
                const DatagramWire::Header got = wire.read();
                if (got.source == 0) return;
                flags |= got.flags;
                if (got.seq != seen + 2 && c.pauseMs != 0) continue;
                if (got.seq == seen + 2) ++seen;
                (void)poll(nullptr, 0, c.pauseMs);
                wire.write({DatagramWire::kId, id, 1, seen + 2, 0});
            }
            EXPECT_EQ(flags & 8, 8) << "the notice of the close";
        });
        if (c.closesLibrary) pelmo_Close();
        const EndpointUnsent unsent = end.close(kNoLimit);
        peer.join();
        EXPECT_TRUE(seen == c.messages && end.lost == 0);
        EXPECT_TRUE(unsent.messages == 0 && unsent.bytes == 0);
    }
}

// To a peer that doesn't answer: messages that share a packet, and one in fragments.
TEST_F(ReliableEndpoints, CountWhatTheyCouldntSend) {
    End end(0);
    DatagramWire wire;
    uint64_t bytes = 0;
    for (const size_t pad : {0, 100, 200, 5000}) {
        const Message message = numbered(1, 0, pad);
        bytes += imageOf(message.get()).size();
        EXPECT_EQ(end.send(wire.port, message.get()), kStatusSuccess);
    }
    const EndpointUnsent unsent = end.close(clockSteadySeconds() + 0.01);
    EXPECT_TRUE(unsent.messages == 4 && unsent.bytes == bytes)
        << unsent.messages << " " << unsent.bytes << " of " << bytes;
    EXPECT_EQ(end.lost, 1u) << "and it was reported";
}

TEST_F(ReliableEndpoints, CloseWithinTheirOwnCallback) {
    End from(0), to(0);
    to.closesItself = true;
    const uint16_t port = to.port();
    EXPECT_EQ(from.send(port, numbered(1, 0).get()), kStatusSuccess);
    EXPECT_TRUE(within(10, [&] { return to.taken == 1 && !to.closesItself; }));
    EXPECT_TRUE(within(10, [&] { return End().open(port) == kStatusSuccess; })) << "port is free";
}

// Senders both ways, ticks and answers while ends are closed under them and made again.
TEST_F(ReliableEndpoints, CloseUnderTheirSenders) {
    constexpr int kRounds = 60;
    for (int round = 0; round < kRounds; ++round) {
        End left(0), right(0);
        ReliableEndpoint* const both[] = {left.endpoint, right.endpoint};
        const uint16_t ports[] = {left.port(), right.port()};
        std::atomic<bool> isOver = false;
        std::vector<std::thread> senders;
        for (uint32_t thread = 0; thread < 4; ++thread) {
            ReliableEndpoint* const own = both[thread % 2];
            ReliableEndpoint_Retain(own);
            senders.emplace_back([&, thread, own] {
                pelmoStatus status = kStatusSuccess;
                for (uint64_t number = 0; status == kStatusSuccess && !isOver; ++number) {
                    const Message message = numbered(thread, number, 700 * (number % 4));
                    pelmoMsg* const one = message.get();
                    status = ReliableEndpoint_Send(own, kLoopbackHost, ports[1 - thread % 2],
                                                   {&one, 1}, false);
                }
                EXPECT_TRUE(status == kStatusSuccess || status == kStatusInvalidTransport ||
                            status == kStatusDeliveryFailed);
                ReliableEndpoint_Release(own);
            });
        }
        (void)poll(nullptr, 0, round % 3);
        left.close(round % 4 == 0 ? kNoLimit : 0);
        isOver = true;
        right.close();
        for (std::thread& sender : senders)
            sender.join();
        EXPECT_EQ(left.outOfOrder + right.outOfOrder, 0u);
    }
}

}  // namespace
