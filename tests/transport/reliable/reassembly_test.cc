#include "lib/transport/reliable/reassembly.h"

#include <gtest/gtest.h>

#include <optional>

#include "tests/support/fail_alloc.h"
#include "tests/support/reliable_run.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kFull = kFragmentPayloadBytes;

struct Arrival {
    uint64_t seq;
    std::string payload;
    std::optional<FragmentOption> fragment = {};
};

// Packet `seq` with messages of such sizes.
Arrival whole(uint64_t seq, const std::vector<uint32_t>& sizes) {
    return {seq, GivenMessages(sizes, false, static_cast<uint32_t>(seq)).bytes};
}

// Fragment k of a message that begins at `firstSeq`.
Arrival part(uint64_t firstSeq, uint32_t k, uint32_t size) {
    const std::string message = GivenMessages({size}, false, static_cast<uint32_t>(firstSeq)).bytes;
    const FragmentOption fragment = {.totalSize = size, .firstSeq = firstSeq, .offset = k * kFull};
    return {firstSeq + k, message.substr(fragment.offset, kFull), fragment};
}

// What a connection does with it, from `rcvNxt` on.
struct Receiver : NoCopy {
    ReassemblyShare share = {.bytes = 0, .most = kMostReassemblyBytes};
    Reassembly reassembly;
    uint64_t rcvNxt = 1;
    std::vector<std::string> messages;
    uint64_t lostBytes = 0;
    uint32_t losses = 0;
    uint32_t batches = 0;
    ReassemblyBound bound = ReassemblyBound::kNone;

    Receiver() { reassemblyInit(&reassembly, &share); }
    ~Receiver() {
        reassemblyFree(&reassembly);
        EXPECT_EQ(share.bytes, 0u);
        EXPECT_TRUE(reassemblyIsEmpty(&reassembly));
    }

    void take(const Packet& packet) {
        if (packet.header.seq < rcvNxt || packet.header.seq >= rcvNxt + kReceiveWindow) return;
        const bool inOrder = packet.header.seq == rcvNxt;
        ReassemblyResult result;
        reassemblyTake(&reassembly, {&packet, inOrder, rcvNxt + (inOrder ? 1 : 0)}, &result);
        EXPECT_GE(result.next, rcvNxt + (inOrder ? 1 : 0));
        rcvNxt = result.next;
        lostBytes += result.lostBytes;
        losses += result.isLost ? 1 : 0;
        if (result.bound != ReassemblyBound::kNone) bound = result.bound;
        if (result.messages == nullptr) return;
        EXPECT_NE(result.messages->count, 0u);
        ++batches;
        takeBatch(result.messages, messages);
        dpaDestroy(result.messages);
    }

    void take(const Arrival& arrival) {
        Packet packet = {};
        packet.header.seq = arrival.seq;
        packet.isFragment = arrival.fragment.has_value();
        packet.fragment = arrival.fragment.value_or(FragmentOption{});
        const std::vector<uint8_t> bytes(arrival.payload.begin(), arrival.payload.end());
        packet.payload = bytes;
        take(packet);
    }

    [[nodiscard]] std::vector<size_t> sizes() const {
        std::vector<size_t> all;
        for (const std::string& message : messages)
            all.push_back(message.size());
        return all;
    }
};

using Sizes = std::vector<size_t>;

Arrival with(Arrival arrival, void (*change)(Arrival&)) {
    change(arrival);
    return arrival;
}

TEST(Reassembly, DeliversInOrderWhatComesInAny) {
    const struct {
        std::vector<Arrival> arrivals;
        Sizes delivered;
        uint64_t next;
        uint32_t batches;
    } cases[] = {
        {{whole(1, {10, 20}), whole(2, {30})}, {10, 20, 30}, 3, 2},
        {{whole(2, {20}), whole(3, {30, 31}), whole(1, {10})}, {10, 20, 30, 31}, 4, 1},
        {{whole(2, {20}), whole(2, {99}), whole(1, {10}), whole(1, {99})}, {10, 20}, 3, 1},
        {{whole(32, {20}), whole(33, {30})}, {}, 1, 0},
        {{part(1, 0, 1433), part(1, 1, 1433)}, {1433}, 3, 1},
        {{part(1, 2, 4000), part(1, 1, 4000), part(1, 0, 4000)}, {4000}, 4, 1},
        {{part(1, 0, 4000), part(1, 2, 4000), part(1, 2, 4000), part(1, 1, 4000)}, {4000}, 4, 1},
        {{part(2, 1, 2824), part(2, 0, 2824), whole(4, {40}), whole(1, {10})},
         {10, 2824, 40},
         5,
         1},
        {{part(3, 1, 1500), part(1, 1, 1600), part(3, 0, 1500), part(1, 0, 1600)},
         {1600, 1500},
         5,
         1},
        {{part(1, 0, 9000), whole(8, {80}), part(1, 3, 9000)}, {}, 2, 0},
    };
    for (const auto& [arrivals, delivered, next, batches] : cases) {
        Receiver receiver;
        for (const Arrival& arrival : arrivals)
            receiver.take(arrival);
        EXPECT_EQ(receiver.sizes(), delivered);
        EXPECT_EQ(receiver.rcvNxt, next);
        EXPECT_EQ(receiver.batches, batches);
        EXPECT_EQ(receiver.losses, 0u);
    }
}

TEST(Reassembly, GivesUpWhatContradictsItselfAndTellsItOnce) {
    const auto total = [](uint32_t size) {
        Arrival arrival = part(1, 0, 3000);
        arrival.fragment->totalSize = size;
        return arrival;
    };
    const auto shorter = [](Arrival& arrival) { arrival.payload.pop_back(); };
    const auto longer = [](Arrival& arrival) { arrival.payload += 'x'; };
    const auto moved = [](Arrival& arrival) { arrival.fragment->offset += kFull; };
    const auto uneven = [](Arrival& arrival) { ++arrival.fragment->offset; };
    const auto earlier = [](Arrival& arrival) { --arrival.fragment->firstSeq; };
    const auto later = [](Arrival& arrival) { ++arrival.fragment->firstSeq; };
    const auto grown = [](Arrival& arrival) { ++arrival.fragment->totalSize; };
    const struct {
        std::vector<Arrival> arrivals;  // and a packet of 77 behind them, on which all goes on
        Sizes delivered;
        uint64_t lost;
        uint32_t losses;
    } cases[] = {
        {{total(0)}, {}, 0, 1},
        {{total(1412)}, {}, 1412, 1},
        {{total(1432), part(1, 1, 3000), part(1, 2, 3000)}, {}, 1432, 1},
        {{with(part(1, 0, 3000), shorter), part(1, 1, 3000), part(1, 2, 3000)}, {}, 3000, 1},
        {{with(part(1, 0, 3000), longer), part(1, 1, 3000), part(1, 2, 3000)}, {}, 3000, 1},
        {{part(1, 0, 3000), part(1, 1, 3000), with(part(1, 2, 3000), shorter)}, {}, 3000, 1},
        {{part(1, 0, 3000), part(1, 1, 3000), with(part(1, 2, 3000), longer)}, {}, 3000, 1},
        {{part(1, 0, 4500), with(part(1, 1, 4500), moved), part(1, 2, 4500), part(1, 3, 4500)},
         {},
         4500,
         1},
        {{part(1, 0, 3000), with(part(1, 1, 3000), uneven), part(1, 2, 3000)}, {}, 3000, 1},
        {{part(1, 0, 3000), with(part(1, 1, 3000), grown), part(1, 2, 3000)}, {}, 3000, 1},
        {{part(1, 2, 3000), with(part(1, 1, 3000), grown), part(1, 0, 3000)}, {}, 3000, 1},
        {{with(part(1, 2, 3000), longer), part(1, 1, 3000), part(1, 0, 3000)}, {}, 3000, 1},
        {{with(part(1, 1, 3000), moved), part(1, 2, 3000), part(1, 0, 3000)}, {}, 3000, 1},
        {{whole(1, {10}), with(part(2, 0, 3000), earlier)}, {10}, 0, 0},  // long over
        {{whole(1, {10}), with(part(2, 0, 3000), later)}, {10}, 3000, 1},

        // A number that another packet took
        {{part(1, 0, 3000), whole(2, {20}), part(1, 2, 3000)}, {20}, 3000, 1},
        {{part(1, 2, 3000), part(1, 1, 3000), whole(1, {10})}, {10}, 3000, 1},
        {{part(1, 2, 3000), whole(2, {20}), part(1, 0, 3000)}, {20}, 3000, 1},
        {{part(1, 0, 3000), part(2, 0, 1500), part(2, 1, 1500)}, {1500}, 3000, 1},
        {{part(2, 0, 1500), part(1, 2, 3000), part(1, 0, 3000)}, {}, 4500, 1},
        {{part(1, 2, 3000), whole(1, {10}), part(1, 1, 3000)}, {10}, 3000, 1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(&row - cases);
        const auto& [arrivals, delivered, lost, losses] = row;
        Receiver receiver;
        for (const Arrival& arrival : arrivals)
            receiver.take(arrival);
        EXPECT_EQ(receiver.rcvNxt, arrivals.size() + 1);
        receiver.take(whole(receiver.rcvNxt, {77}));
        Sizes all = delivered;
        all.push_back(77);
        EXPECT_EQ(receiver.sizes(), all);
        EXPECT_EQ(receiver.lostBytes, lost);
        EXPECT_EQ(receiver.losses, losses);
    }
}

std::string number(uint32_t value) {
    std::string bytes(4, '\0');
    storeBe32At(reinterpret_cast<uint8_t*>(bytes.data()), value);
    return bytes;
}

TEST(Reassembly, SplitsAPacketAsFarAsItHoldsMessages) {
    const std::string good = streamUnit(20, 'g');
    const struct {
        std::string payload;
        Sizes delivered;
        uint64_t lost;
    } cases[] = {
        {good + good, {20, 20}, 0},
        {streamUnit(8, 0) + good, {8, 20}, 0},
        {good + "1234567", {20}, 0},
        {"1", {}, 0},
        {good + number(0) + good, {20}, 0},
        {good + number(7) + good, {20}, 24},
        {good + streamUnit(20, 'b').replace(0, 4, number(1)) + good, {20}, 40},
        {number(7) + good, {}, 24},
        {good + number(25) + good, {20}, 24},
        {good + number(UINT32_MAX) + good, {20}, 24},
        {good + streamUnit(20, 'b', kMessageMagic + 1) + good, {20}, 40},
    };
    for (const auto& [payload, delivered, lost] : cases) {
        for (const bool ahead : {false, true}) {
            Receiver receiver;
            if (!ahead) receiver.take(whole(1, {10}));
            receiver.take(Arrival{2, payload});
            receiver.take(whole(1, {10}));
            Sizes all = {10};
            all.insert(all.end(), delivered.begin(), delivered.end());
            EXPECT_EQ(receiver.sizes(), all);
            EXPECT_EQ(receiver.lostBytes, lost);
            EXPECT_EQ(receiver.losses, lost != 0 ? 1u : 0u);
            EXPECT_EQ(receiver.rcvNxt, 3u);
        }
    }
}

TEST(Reassembly, HoldsNoMoreThanHasCome) {
    Receiver receiver;
    constexpr uint32_t kSize = kMostReassemblyPeerBytes - 1000;
    Arrival arrival = part(1, 0, kSize);
    for (uint32_t k = 0; k < 2000; ++k) {
        arrival.seq = 1 + k;
        arrival.fragment->offset = k * kFull;
        receiver.take(arrival);
        ASSERT_LE(receiver.share.bytes, 2 * (k + 1) * kFull);
        ASSERT_EQ(receiver.share.bytes, receiver.reassembly.bytes);
    }
    // Where twice as much would be too much, no more is taken than is needed, and at last none.
    receiver.share.most = receiver.share.bytes + kFull + 40;
    for (uint32_t k = 2000; receiver.losses == 0; ++k) {
        arrival.seq = 1 + k;
        arrival.fragment->offset = k * kFull;
        receiver.take(arrival);
        ASSERT_LE(receiver.share.bytes, receiver.share.most);
    }
    EXPECT_EQ(receiver.bound, ReassemblyBound::kEndpoint);
    EXPECT_EQ(receiver.lostBytes, kSize);
    EXPECT_EQ(receiver.share.bytes, 0u);
    receiver.take(arrival);
    EXPECT_EQ(receiver.losses, 1u);

    receiver.share.most = 40;
    receiver.take(whole(receiver.rcvNxt + 1, {50}));
    EXPECT_EQ(receiver.losses, 2u);
    receiver.take(part(receiver.rcvNxt, 0, kMostReassemblyPeerBytes + 1));
    EXPECT_EQ(receiver.bound, ReassemblyBound::kPeer);
    EXPECT_EQ(receiver.losses, 3u);
}

TEST(Reassembly, TellsWhatMemoryCost) {
    const std::vector<Arrival> arrivals = {
        whole(1, {10, 20}), part(3, 1, 2000), whole(5, {50}), whole(2, {21, 22, 23}),
        part(3, 0, 2000),   part(7, 2, 4000), whole(6, {60}), part(7, 0, 4000),
        part(7, 1, 4000),   whole(10, {100})};
    Receiver sound;
    for (const Arrival& arrival : arrivals)
        sound.take(arrival);
    EXPECT_EQ(sound.sizes(), (Sizes{10, 20, 21, 22, 23, 2000, 50, 60, 4000, 100}));
    const auto failing = eachAllocationFails([&] {
        Receiver receiver;
        for (const Arrival& arrival : arrivals)
            receiver.take(arrival);
        uint64_t bytes = receiver.lostBytes;
        size_t at = 0;
        for (const std::string& message : receiver.messages) {
            bytes += message.size();
            while (at < sound.messages.size() && sound.messages[at] != message)
                ++at;
            ASSERT_LT(at++, sound.messages.size());
        }
        EXPECT_EQ(bytes, 6306u);
        EXPECT_EQ(receiver.rcvNxt, 11u);
        EXPECT_EQ(receiver.losses != 0, allocationsFailed() != 0);
    });
    EXPECT_GT(failing, 0u);
}

// One end to the other over a network that loses, repeats and reorders, through connections that
// open anew.
TEST(Reassembly, GivesBackWhatASendBufferMade) {
    Random random = {};
    HeldSendBuffer buffer;
    Receiver receiver;
    std::string sent;
    uint64_t sndNxt = 1;
    for (uint32_t step = 0; step < 40000; ++step) {
        if (step % 8 == 0 && step < 30000 && sendBufferWaiting(&buffer) < 100) {
            std::vector<uint32_t> sizes(1 + random() % 5);
            for (uint32_t& size : sizes)
                size = 8 + random() % (random() % 8 == 0 ? 60000 : random() % 4 == 0 ? 1500 : 300);
            const GivenMessages given(sizes, random() % 2 == 0, step);
            ASSERT_EQ(sendBufferAdd(&buffer, given.all, random() % 4 == 0), kStatusSuccess);
            sent += given.bytes;
        }
        if (step % 50 == 0) sendBufferEndDelay(&buffer);
        while (sndNxt < receiver.rcvNxt + kReceiveWindow && sendBufferNext(&buffer, sndNxt))
            ++sndNxt;
        if (buffer.sent != 0) {
            const uint64_t first = buffer.list()[0]->header.seq;
            const OutPacket* const packet =
                sendBufferFind(&buffer, first + random() % (sndNxt - first));
            ASSERT_NE(packet, nullptr);
            uint8_t head[kMostHeadBytes];
            const uint32_t headBytes = packetWriteHead(
                head, packet->header, packet->isFragment ? &packet->fragment : nullptr);
            const std::string payload = payloadOf(packet);
            std::vector<uint8_t> datagram(head, head + headBytes);
            datagram.insert(datagram.end(), payload.begin(), payload.end());
            Packet read;
            ASSERT_TRUE(packetRead(datagram, &read));
            receiver.take(read);
        }
        const bool opensAnew = random() % 500 == 0;
        if (opensAnew || random() % 3 == 0) sendBufferAcknowledge(&buffer, receiver.rcvNxt);
        if (!opensAnew) continue;
        (void)sendBufferRewind(&buffer);
        receiver.rcvNxt = sndNxt = 1 + random() % 1000;
    }
    EXPECT_TRUE(sendBufferIsEmpty(&buffer));
    EXPECT_TRUE(reassemblyIsEmpty(&receiver.reassembly));
    EXPECT_EQ(receiver.losses, 0u);
    std::string all;
    for (const std::string& message : receiver.messages)
        all += message;
    EXPECT_GT(sent.size(), 1'000'000u);
    EXPECT_TRUE(all == sent) << all.size() << " of " << sent.size();
}

}  // namespace
