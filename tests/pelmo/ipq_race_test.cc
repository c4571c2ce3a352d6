// Queues between the library's own threads.

#include <functional>
#include <optional>

#include "lib/msg/message_typed.h"
#include "lib/pelmo.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/message_values.h"

namespace {

// Numbers that came in, checked for their order as they come.
struct Reader {
    std::atomic<uint64_t> next{1};
    std::atomic<uint32_t> errors{0}, gone{0};
    std::function<void(Ipq*)> onBatch, onError;

    void await(uint64_t count) const {
        while (next.load() <= count && errors.load() == 0)
            std::this_thread::yield();
        EXPECT_EQ(next.load(), count + 1);
    }

    static void read(Ipq* ipq, std::span<pelmoMsg* const> messages, void* closure) {
        auto* const self = static_cast<Reader*>(closure);
        for (pelmoMsg* message : messages) {
            uint64_t number = 0;  // where there is one
            if (pelmoMsg_GetU64(message, "n", &number, 0) == kStatusSuccess) {
                EXPECT_EQ(number, self->next.load());
            }
            ++self->next;
            msgRelease(message);
        }
        if (self->onBatch) self->onBatch(ipq);
    }
    static void fail(Ipq* ipq, void* closure) {
        auto* const self = static_cast<Reader*>(closure);
        ++self->errors;
        if (self->onError) self->onError(ipq);
    }
    static void close(void* closure) { ++static_cast<Reader*>(closure)->gone; }
};

// Two queues with a connection between them, which renew() makes.
struct Queues : testing::Test {
    Ipq *sender = nullptr, *receiver = nullptr;
    std::optional<Reader> fromSender, fromReceiver;  // read by the other

    void SetUp() override { ASSERT_EQ(pelmo_Open(), kStatusSuccess); }
    void TearDown() override {
        endPair();
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    }
    void endPair() {
        if (sender != nullptr) end(sender, *fromReceiver);
        if (receiver != nullptr) end(receiver, *fromSender);
    }
    void renew() {
        endPair();
        fromSender.emplace();
        fromReceiver.emplace();
        Socket *server = nullptr, *client = nullptr, *accepted = nullptr;
        ASSERT_EQ(socketCreateServer(&server, 0, kFirstIoQueueId, false), kSocketDone);
        ASSERT_EQ(socketBind(server, kLoopbackHost, 0, false), kSocketDone);
        ASSERT_EQ(socketListen(server), kSocketDone);
        ASSERT_EQ(socketCreateClient(&client, 0, kFirstIoQueueId, false), kSocketDone);
        socketSetMode(client, SocketMode::kBlocking);
        ASSERT_EQ(socketConnect(client, kLoopbackHost, socketBoundPort(server)), kSocketDone);
        socketSetMode(server, SocketMode::kBlocking);
        ASSERT_EQ(socketAccept(server, &accepted, kFirstIoQueueId), kSocketDone);
        socketDestroy(server);
        sender = make(client, *fromReceiver);
        receiver = make(accepted, *fromSender);
    }
    static Ipq* make(Socket* socket, Reader& reader) {
        Ipq* ipq = nullptr;
        EXPECT_EQ(ipqCreate(&ipq, nullptr, kFirstIoQueueId, socket), kStatusSuccess);
        EXPECT_EQ(ipqSetErrorCallback(ipq, Reader::fail, &reader), kStatusSuccess);
        EXPECT_EQ(ipqSetReadCallback(ipq, Reader::read, &reader), kStatusSuccess);
        return ipq;
    }
    static void end(Ipq*& ipq, Reader& reader, bool graceful = false) {
        EXPECT_EQ(ipqClose(std::exchange(ipq, nullptr), graceful, Reader::close), kStatusSuccess);
        EXPECT_TRUE(within(60, [&] { return reader.gone != 0; }));
    }
};

// Of about that size.
Message padded(uint32_t size) {
    Message message = newMessage();
    const Bytes pad(size);
    EXPECT_EQ(pelmoMsg_AddOpaque(message.get(), "pad", pad.data(), size, 0), kStatusSuccess);
    return message;
}

// A reader that stops now and then holds the sender back, and nothing is lost or doubled.
struct Stalls : Queues {
    void stallsWhileCarrying(uint64_t count, uint32_t (*size)(Random&)) {
        constexpr uint32_t kStallEvery = 5, kMostBytes = 100'000;
        Random random{std::mt19937(3)};
        renew();
        ASSERT_EQ(ipqSetBlockWhenFull(sender, true), kStatusSuccess);
        fromSender->onBatch = [this](Ipq* ipq) {
            if (fromSender->next.load() % kStallEvery != 0) return;
            EXPECT_EQ(ipqPauseReading(ipq), kStatusSuccess);
        };
        std::atomic<bool> over{false};
        std::thread resumer([&] {
            for (; !over; (void)poll(nullptr, 0, 1))
                EXPECT_EQ(ipqResume(receiver), kStatusSuccess);
        });
        uint64_t most = 0;
        for (uint64_t i = 0; i < count; ++i) {
            const Message message = padded(size(random));
            ASSERT_EQ(pelmoMsg_AddU64(message.get(), "n", i + 1, 0), kStatusSuccess);
            ASSERT_EQ(ipqSend(sender, message.get(), false), kStatusSuccess);
            most = std::max(most, ipqBacklog(sender).bytes);
        }
        fromSender->await(count);
        over = true;
        resumer.join();
        EXPECT_LE(most, (16u << 20) + 2 * kMostBytes);
    }
};

TEST_F(Stalls, HoldAFastSenderBack) {
    stallsWhileCarrying(4'000, [](Random& from) { return 1 + from.below(40'000); });
}

// Ten million messages: for scripts/test.sh --long.
TEST_F(Stalls, DISABLED_CarryTenMillion) {
    stallsWhileCarrying(10'000'000, [](Random& from) {
        const uint32_t most[] = {100, 100, 100, 300, 3'000, 300, 100, 100'000};
        return 1 + from.below(most[from.oneIn(64) ? 7 : from.below(7)]);
    });
}

TEST_F(Queues, WakeWritersThatWait) {
    constexpr uint32_t kLimit = 1'000'000, kBytes = 100'000, kWriters = 3;
    const struct {
        const char* end;
        std::function<void()> act;
        pelmoStatus status;
    } cases[] = {
        {"room", [&] { EXPECT_EQ(ipqResume(receiver), kStatusSuccess); }, kStatusSuccess},
        {"will", [&] { EXPECT_EQ(ipqSetBlockWhenFull(sender, false), kStatusSuccess); },
         kStatusSuccess},
        {"limit", [&] { ipqSetWaitLimit(sender, UINT32_MAX); }, kStatusSuccess},
        {"close", [&] { EXPECT_EQ(ipqClose(sender, false, Reader::close), kStatusSuccess); },
         kStatusDaemonNotConnected},
        {"interrupt", [&] { ipqInterrupt(sender); }, kStatusInvalidIoSource},
        {"peer", [&] { end(receiver, *fromSender); }, kStatusInvalidIoSource},
    };
    for (const auto& c : cases) {
        renew();
        ASSERT_EQ(ipqPauseReading(receiver), kStatusSuccess);
        ASSERT_EQ(ipqSetBlockWhenFull(sender, true), kStatusSuccess);
        ipqSetWaitLimit(sender, kLimit);
        ipqRetain(sender);
        std::vector<std::thread> writers;
        for (uint32_t i = 0; i < kWriters; ++i) {
            writers.emplace_back([&] {
                const Message message = padded(kBytes);
                pelmoStatus status = kStatusSuccess;
                for (int sends = 0; sends < 200 && status == kStatusSuccess; ++sends)
                    status = ipqSend(sender, message.get(), false);
                EXPECT_EQ(status, c.status) << c.end;
            });
        }
        EXPECT_TRUE(within(60, [&] {
            const LockGuard guard(sender->lock);
            return sender->writersWaiting == kWriters;
        }));
        EXPECT_LE(ipqBacklog(sender).bytes, kLimit + 2 * (kBytes + 100)) << c.end;
        c.act();
        for (std::thread& writer : writers)
            writer.join();
        Ipq* const ipq = sender;
        if (c.status == kStatusDaemonNotConnected) sender = nullptr;
        ipqRelease(ipq);
    }
}

// A callback on the thread that has to make room goes on beyond the limit.
TEST_F(Queues, HandlersNeverWait) {
    renew();
    ASSERT_EQ(ipqPauseReading(receiver), kStatusSuccess);
    ASSERT_EQ(ipqSetBlockWhenFull(sender, true), kStatusSuccess);
    ipqSetWaitLimit(sender, 1'000);
    constexpr uint64_t kAnswers = 200;
    fromReceiver->onBatch = [](Ipq* ipq) {
        const Message answer = padded(100'000);
        for (uint64_t i = 0; i < kAnswers; ++i)
            EXPECT_EQ(ipqSend(ipq, answer.get(), false), kStatusSuccess);
        EXPECT_GT(ipqBacklog(ipq).bytes, 1'000'000u);
    };
    ASSERT_EQ(ipqSend(receiver, padded(1).get(), false), kStatusSuccess);
    fromReceiver->await(1);

    // Nor does a callback of the application on the IO queue.
    const SocketPair pair;
    const auto answer = [](uint32_t event, pelmoMsg*, void* closure) {
        pelmoEvent_DestroyEx(event, nullptr);
        auto& ipq = *static_cast<std::atomic<Ipq*>*>(closure);
        EXPECT_EQ(ipqSend(ipq, padded(1).get(), false), kStatusSuccess);
        ipq = nullptr;
    };
    uint32_t event = kNoId;
    std::atomic<Ipq*> answering{sender};
    ASSERT_EQ(
        pelmoEvent_CreateIO(&event, kFirstIoQueueId, answer, pair.ends[0], kIoRead, &answering),
        kStatusSuccess);
    pair.ready();
    EXPECT_TRUE(within(10, [&] { return answering == nullptr; }));
    ASSERT_EQ(ipqResume(receiver), kStatusSuccess);
    fromSender->await(kAnswers + 1);
}

// What several threads may do with a queue, until it answers that it has ended.
void useUntilEnd(Ipq* ipq, uint32_t seed) {
    Random random{std::mt19937(seed)};
    const Message small = padded(50), large = padded(30'000);
    pelmoMsg* const both[] = {small.get(), large.get()};
    for (pelmoStatus status = kStatusSuccess; status == kStatusSuccess;) {
        switch (random.below(6)) {
            case 0:
                (void)ipqHold(ipq);
                (void)ipqSend(ipq, small.get(), true);
                status = ipqFlush(ipq);
                break;
            case 1:
                status = ipqSendVector(ipq, both, random.oneIn(2));
                break;
            case 2:
                (void)ipqPauseReading(ipq);
                status = ipqResume(ipq);
                break;
            default:
                status = ipqSend(ipq, random.oneIn(4) ? large.get() : small.get(), false);
        }
    }
}

// Closes from a callback, another thread or the peer, while others send, wait, pause and resume.
TEST_F(Queues, CloseWhileAllGoesOn) {
    const auto closeOf = [](bool graceful) {
        return [graceful](Ipq* ipq) { (void)ipqClose(ipq, graceful, Reader::close); };
    };
    for (uint32_t round = 0; round < 36; ++round) {
        renew();
        const bool graceful = round % 2 == 0;
        fromReceiver->onError = fromSender->onError = closeOf(false);
        const auto closeSoon = [&closeOf, count = 0](Ipq* ipq) mutable {
            if (++count == 20) closeOf(false)(ipq);  // both ends have one thread
        };
        if (round % 3 == 0) fromReceiver->onBatch = closeSoon;
        ipqRetain(sender);
        ipqRetain(receiver);
        for (Ipq* ipq : {sender, receiver}) {
            EXPECT_EQ(ipqSetBlockWhenFull(ipq, true), kStatusSuccess);
            ipqSetWaitLimit(ipq, round % 4 < 2 ? 200'000 : 2'000'000);
            EXPECT_EQ(ipqSetAgeCheck(ipq, round % 2 == 0, 0.1, 0, nullptr, nullptr),
                      kStatusSuccess);
            EXPECT_EQ(ipqSetBatchMode(ipq, round % 5 == 0 ? 1 : 0), kStatusSuccess);
        }
        std::vector<std::thread> users;
        for (uint32_t i = 0; i < 4; ++i)
            users.emplace_back(useUntilEnd, i % 2 == 0 ? sender : receiver, round * 4 + i);
        while (round % 3 != 0 && fromSender->next < 50)
            std::this_thread::yield();
        if (round % 3 == 1) ipqInterrupt(sender);
        if (round % 3 != 0) closeOf(graceful)(sender);
        for (std::thread& user : users)
            user.join();
        EXPECT_TRUE(within(60, [&] { return fromSender->errors + fromReceiver->errors != 0; }));
        closeOf(false)(sender);
        closeOf(false)(receiver);
        ipqRelease(std::exchange(sender, nullptr));
        ipqRelease(std::exchange(receiver, nullptr));
        EXPECT_TRUE(within(60, [&] { return fromSender->gone + fromReceiver->gone >= 2; }));
    }
}

}  // namespace
