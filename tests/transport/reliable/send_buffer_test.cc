#include "lib/transport/reliable/send_buffer.h"

#include <gtest/gtest.h>

#include "tests/support/fail_alloc.h"
#include "tests/support/reliable_run.h"

namespace {

struct Call {
    std::vector<uint32_t> sizes;
    bool delaySmall = false;
};

void add(SendBuffer* buffer, const std::vector<uint32_t>& sizes, bool delaySmall = false) {
    const GivenMessages given(sizes);
    ASSERT_EQ(sendBufferAdd(buffer, given.all, delaySmall), kStatusSuccess);
}

void sendAll(SendBuffer* buffer, uint64_t firstSeq) {
    while (sendBufferNext(buffer, firstSeq) != nullptr)
        ++firstSeq;
}

TEST(SendBuffer, PacksAsManyMessagesAsAPacketTakes) {
    const struct {
        std::vector<Call> calls;
        std::string shape;
    } cases[] = {
        {{{{1432}}}, "1432"},
        {{{{1433}}}, "1412@0/1433 21@1412/1433"},
        {{{{2824}}}, "1412@0/2824 1412@1412/2824"},
        {{{{800, 800}}}, "800 800"},
        {{{{700, 700}}}, "1400"},
        {{{{700, 732, 8}}}, "1432 8"},
        {{{{700, 733, 8}}}, "700 741"},
        {{{{8, 1433, 8}}}, "8 1412@0/1433 21@1412/1433 8"},
        {{{{100}}, {{100, 1232, 100}}, {{1332}}}, "1432 1432"},
        {{{{100}}, {{1333}}}, "100 1333"},
        {{{{1433}}, {{8}}}, "1412@0/1433 21@1412/1433 8"},
        {{{{100}, true}}, "| 100"},
        {{{{1074}, true}}, "1074"},
        {{{{100}, true}, {{100}, true}}, "| 200"},
        {{{{100}, true}, {{1000}, true}}, "1100"},
        {{{{600}, true}, {{900}, true}}, "600 | 900"},
        {{{{600, 900}, true}}, "| 600 900"},
        {{{{600, 900}, true}, {{10}, true}}, "| 600 910"},
        {{{{600, 900}, true}, {{200}, true}}, "600 1100"},
        {{{{600, 1433}, true}}, "600 1412@0/1433 21@1412/1433"},
        {{{{1433, 600}, true}}, "1412@0/1433 21@1412/1433 | 600"},
        {{{{600}}, {{100}, true}}, "600 | 100"},
        {{{{600}, true}, {{100}}}, "700"},
        {{{{600}, true}, {{1000}}}, "600 1000"},
    };
    for (const auto& [calls, shape] : cases) {
        for (const bool together : {false, true}) {
            HeldSendBuffer buffer;
            std::string bytes;
            for (const Call& call : calls) {
                const GivenMessages given(call.sizes, together);
                bytes += given.bytes;
                ASSERT_EQ(sendBufferAdd(&buffer, given.all, call.delaySmall), kStatusSuccess);
            }
            EXPECT_EQ(buffer.shape(), shape);
            EXPECT_EQ(buffer.payload(), bytes);
            EXPECT_EQ(sendBufferPayloadBytes(&buffer), bytes.size());
        }
    }
}

TEST(SendBuffer, CopiesOnlyWhatDoesntLieTogetherAndIsSmall) {
    HeldSendBuffer buffer;
    const GivenMessages neighbours({300, 400, 9000}, true);
    ASSERT_EQ(sendBufferAdd(&buffer, neighbours.all, false), kStatusSuccess);
    for (const OutPacket* const packet : buffer.list())
        EXPECT_EQ(packet->buffer, neighbours.all[0]->buffer);
    EXPECT_EQ(buffer.list()[0]->length, 700u);

    // A message alone in a buffer as large as those made here: it isn't ours to write behind it.
    Buffer* const large = bufferCreate(kMostBlockBytes);
    std::memset(large->data, 'x', large->size);
    std::memcpy(large->data, neighbours.all[0]->buffer->data, 300);
    pelmoMsg* owner = nullptr;
    ASSERT_EQ(msgCreateOverBuffer(&owner, large, 0), kStatusSuccess);
    sendAll(&buffer, 2);
    ASSERT_EQ(sendBufferAdd(&buffer, {&owner, 1}, false), kStatusSuccess);
    add(&buffer, {200});
    EXPECT_EQ(std::string(large->data + 300, large->data + large->size), std::string(1132, 'x'));
    const OutPacket* const last = buffer.list().back();
    const Buffer* const own = last->buffer;
    EXPECT_NE(own, large);
    EXPECT_EQ(large->refCount.load(), 2u);
    add(&buffer, {200});
    EXPECT_EQ(last->buffer, own);
    EXPECT_EQ(last->length, 700u);
    msgRelease(owner);
    bufferRelease(large);
}

// Adds with the n-th allocation failing, once or from there on; false where none failed.
bool addFails(const std::vector<Call>& before,
              const GivenMessages& given,
              bool delaySmall,
              const FailAlloc& plan) {
    HeldSendBuffer buffer;
    for (const Call& call : before)
        add(&buffer, call.sizes, call.delaySmall);
    const std::string shape = buffer.shape();
    const std::string payload = buffer.payload();
    pelmoStatus status;
    {
        const FailAlloc fail{.after = plan.after, .forGood = plan.forGood};
        status = sendBufferAdd(&buffer, given.all, delaySmall);
    }
    if (allocationsFailed() == 0) {
        EXPECT_EQ(buffer.payload(), payload + given.bytes);
        return false;
    }
    EXPECT_EQ(status, kStatusNoMemory);
    EXPECT_EQ(buffer.shape(), shape);
    EXPECT_EQ(buffer.payload(), payload);
    return true;
}

TEST(SendBuffer, TakesAllMessagesOrNone) {
    const std::vector<Call> befores[] = {{}, {{{100}}}, {{{100}}, {{50}}}, {{{100, 1400}, true}}};
    const std::vector<uint32_t> givens[] = {
        {10}, {20, 30}, {1000, 1000}, {30, 3000, 40}, {20000, 8}};
    size_t failures = 0;
    for (const auto& before : befores) {
        for (const auto& sizes : givens) {
            const GivenMessages given(sizes, false, 7);
            for (const uint32_t bits : {0u, 1u, 2u, 3u}) {
                FailAlloc plan{.after = 0, .forGood = (bits & 2) != 0};
                allocationsHeal();
                while (addFails(before, given, (bits & 1) != 0, plan))
                    ++plan.after;
                failures += plan.after;
            }
        }
    }

    EXPECT_GT(failures, 0u);

    HeldSendBuffer buffer;
    GivenMessages given({10, 20});
    given.all[1]->length = kMostReliableMessageBytes + 1;
    EXPECT_EQ(sendBufferAdd(&buffer, given.all, false), kStatusInvalidSize);
    given.all[1]->magic = kMessageDead;
    EXPECT_EQ(sendBufferAdd(&buffer, given.all, false), kStatusInvalidMessage);
    given.all[1]->magic = kMessageMagic;
    EXPECT_TRUE(sendBufferIsEmpty(&buffer));
}

TEST(SendBuffer, KeepsAMessageUntilItsLastFragmentIsAcknowledged) {
    const struct {
        uint64_t ack;
        std::string shape;
    } cases[] = {
        {0, "#6:9 #7:1412@0/2900^7 #8:1412@1412/2900^7 #9:76@2824/2900^7 #10:8 20"},
        {6, "#6:9 #7:1412@0/2900^7 #8:1412@1412/2900^7 #9:76@2824/2900^7 #10:8 20"},
        {7, "#7:1412@0/2900^7 #8:1412@1412/2900^7 #9:76@2824/2900^7 #10:8 20"},
        {9, "#7:1412@0/2900^7 #8:1412@1412/2900^7 #9:76@2824/2900^7 #10:8 20"},
        {10, "#10:8 20"},
        {11, "20"},
        {99, "20"},
    };
    for (const bool stepwise : {false, true}) {
        HeldSendBuffer buffer;
        for (const auto& [ack, shape] : cases) {
            if (!stepwise || ack == 0) {
                sendBufferClear(&buffer);
                add(&buffer, {9});
                add(&buffer, {2900, 8});
                sendAll(&buffer, 6);
                add(&buffer, {20});
            }
            sendBufferAcknowledge(&buffer, ack);
            EXPECT_EQ(buffer.shape(), shape) << ack;
            for (uint64_t seq = 4; seq <= 11; ++seq) {
                const OutPacket* const found = sendBufferFind(&buffer, seq);
                const bool isThere = shape.find('#' + std::to_string(seq)) != std::string::npos;
                ASSERT_EQ(found != nullptr, isThere) << seq;
                EXPECT_EQ(isThere ? found->header.seq : seq, seq);
            }
        }
        EXPECT_EQ(sendBufferWaiting(&buffer), 1u);
    }
}

TEST(SendBuffer, TakesAllBackWithoutMemory) {
    HeldSendBuffer buffer;
    const FailAlloc counts{.after = kNeverFails};
    EXPECT_EQ(sendBufferRewind(&buffer), 0u);
    add(&buffer, {100});
    add(&buffer, {2900});
    sendAll(&buffer, 2);
    add(&buffer, {2000});
    add(&buffer, {30}, true);
    const std::string all = buffer.payload();
    EXPECT_EQ(buffer.shape(),
              "#2:100 #3:1412@0/2900^3 #4:1412@1412/2900^3 #5:76@2824/2900^3 "
              "1412@0/2000 588@1412/2000 | 30");

    const size_t allocations = allocationsCounted();
    sendBufferAcknowledge(&buffer, 5);
    EXPECT_EQ(sendBufferRewind(&buffer), 3u);
    EXPECT_EQ(buffer.shape(),
              "1412@0/2900 1412@1412/2900 76@2824/2900 1412@0/2000 588@1412/2000 30");
    EXPECT_EQ(buffer.payload(), all.substr(100));
    sendAll(&buffer, 40);
    EXPECT_EQ(buffer.shape(),
              "#40:1412@0/2900^40 #41:1412@1412/2900^40 #42:76@2824/2900^40 "
              "#43:1412@0/2000^43 #44:588@1412/2000^43 #45:30");
    EXPECT_EQ(allocationsCounted(), allocations);

    sendBufferAcknowledge(&buffer, 45);
    add(&buffer, {20});
    add(&buffer, {20});
    EXPECT_EQ(buffer.shape(), "#45:30 40");  // none joins what is sent
}

TEST(SendBuffer, IsFullFromItsBacklogOn) {
    HeldSendBuffer buffer;
    for (uint32_t i = 0; i < 2732; ++i)
        add(&buffer, {1432});
    add(&buffer, {100}, true);
    EXPECT_FALSE(sendBufferIsFull(&buffer));
    sendBufferEndDelay(&buffer);
    EXPECT_EQ(sendBufferWaiting(&buffer), 2733u);
    EXPECT_TRUE(sendBufferIsFull(&buffer));
    ASSERT_NE(sendBufferNext(&buffer, 2), nullptr);
    EXPECT_FALSE(sendBufferIsFull(&buffer));
}

}  // namespace
