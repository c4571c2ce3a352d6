#include "lib/transport/ipq/ipq.h"

#include <atomic>
#include <functional>
#include <thread>

#include "lib/msg/message_internal.h"
#include "lib/msg/message_typed.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/transport/socket/socket.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/message_values.h"
#include "tests/support/random.h"

namespace {

// Numbers that came in, checked for their order as they come.
struct Reader {
    std::atomic<uint64_t> next{1};
    std::atomic<uint32_t> errors{0};
    std::atomic<bool> gone{false};
    std::function<void()> onBatch;
    std::function<void(Ipq*)> onError;

    void await(uint64_t count) const {
        while (next.load() <= count && errors.load() == 0)
            std::this_thread::yield();
        EXPECT_EQ(next.load(), count + 1);
    }

    static void read(Ipq*, std::span<pelmoMsg* const> messages, void* closure) {
        auto* const self = static_cast<Reader*>(closure);
        for (pelmoMsg* message : messages) {
            uint64_t number = 0;
            EXPECT_EQ(pelmoMsg_GetU64(message, "n", &number, 0), kStatusSuccess);
            EXPECT_EQ(number, self->next.load());
            ++self->next;
            msgRelease(message);
        }
        if (self->onBatch) self->onBatch();
    }
    static void fail(Ipq* ipq, void* closure) {
        auto* const self = static_cast<Reader*>(closure);
        ++self->errors;
        if (self->onError) self->onError(ipq);
    }
    static void close(void* closure) { static_cast<Reader*>(closure)->gone = true; }
};

// Two queues with a connection between them.
struct Queues : testing::Test {
    Ipq* sender = nullptr;
    Ipq* receiver = nullptr;
    Reader fromSender;    // read by the receiver
    Reader fromReceiver;  // read by the sender
    uint64_t number = 0;

    void SetUp() override {
        ASSERT_EQ(pelmo_Open(), kStatusSuccess);
        connectPair();
    }
    void TearDown() override {
        if (sender != nullptr) end(sender, fromReceiver);
        if (receiver != nullptr) end(receiver, fromSender);
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    }

    void connectPair() {
        Socket* server = nullptr;
        Socket* client = nullptr;
        Socket* accepted = nullptr;
        ASSERT_EQ(socketCreateServer(&server, 0, kFirstIoQueueId, false), kSocketDone);
        ASSERT_EQ(socketBind(server, kLoopbackHost, 0, false), kSocketDone);
        ASSERT_EQ(socketListen(server), kSocketDone);
        ASSERT_EQ(socketCreateClient(&client, 0, kFirstIoQueueId, false), kSocketDone);
        socketSetMode(client, SocketMode::kBlocking);
        ASSERT_EQ(socketConnect(client, kLoopbackHost, socketBoundPort(server)), kSocketDone);
        socketSetMode(server, SocketMode::kBlocking);
        ASSERT_EQ(socketAccept(server, &accepted, kFirstIoQueueId), kSocketDone);
        socketDestroy(server);
        sender = make(client, fromReceiver);
        receiver = make(accepted, fromSender);
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
        while (!reader.gone)
            std::this_thread::yield();
    }

    // A message of about that size with the next number.
    Message numbered(uint32_t size) {
        Message message = newMessage();
        const Bytes pad(size);
        EXPECT_EQ(pelmoMsg_AddU64(message.get(), "n", ++number, 0), kStatusSuccess);
        EXPECT_EQ(pelmoMsg_AddOpaque(message.get(), "pad", pad.data(), size, 0), kStatusSuccess);
        return message;
    }
    pelmoStatus send(uint32_t size) { return ipqSend(sender, numbered(size).get(), false); }
};

TEST_F(Queues, CarryMessagesBothWays) {
    ASSERT_EQ(send(100), kStatusSuccess);
    fromSender.await(1);
    number = 0;
    ASSERT_EQ(ipqSend(receiver, numbered(300000).get(), false), kStatusSuccess);
    fromReceiver.await(1);
}

TEST_F(Queues, SendVectorsAndHeldBatchesInOrder) {
    std::vector<Message> messages;
    std::vector<pelmoMsg*> list;
    for (uint32_t size = 1; size < 200; ++size) {
        messages.push_back(numbered(size * size));
        list.push_back(messages.back().get());
    }
    ASSERT_EQ(ipqHold(sender), kStatusSuccess);
    ASSERT_EQ(ipqSendVector(sender, list, false), kStatusSuccess);
    ASSERT_EQ(send(10), kStatusSuccess);
    ASSERT_EQ(ipqFlush(sender), kStatusSuccess);
    ASSERT_EQ(ipqSetBatchMode(sender, 1), kStatusSuccess);
    EXPECT_EQ(ipqSetBatchMode(sender, 0), kStatusNotPermitted);
    ASSERT_EQ(send(10), kStatusSuccess);
    fromSender.await(number);
    EXPECT_LT(ipqWriteStatistics(sender).attempts, 100u);
}

// A graceful close ends behind all that was sent, however much waits.
TEST_F(Queues, CloseInOrder) {
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(send(60000), kStatusSuccess);
    fromSender.onError = [&](Ipq* ipq) {
        EXPECT_EQ(ipqSend(ipq, numbered(1).get(), false), kStatusInvalidIoSource);
        EXPECT_EQ(fromSender.next.load(), 301u);
        EXPECT_EQ(ipqClose(ipq, false, Reader::close), kStatusSuccess);
    };
    end(sender, fromReceiver, true);
    while (!fromSender.gone)
        std::this_thread::yield();
    receiver = nullptr;
}

// A reader that stops now and then holds the sender back, and nothing is lost or doubled.
TEST_F(Queues, HoldAFastSenderBack) {
    Random random{std::mt19937(3)};
    ASSERT_EQ(ipqSetBlockWhenFull(sender, true), kStatusSuccess);
    std::atomic<bool> paused{false};
    fromSender.onBatch = [&] {
        if (fromSender.next.load() % 5 == 0 && !paused.exchange(true)) {
            EXPECT_EQ(ipqPauseReading(receiver), kStatusSuccess);
        }
    };
    std::thread resumer([&] {
        while (fromSender.next.load() <= 4000) {
            const bool resumes = paused.exchange(false);
            EXPECT_TRUE(!resumes || ipqResume(receiver) == kStatusSuccess);
            std::this_thread::yield();
        }
    });
    uint64_t most = 0;
    for (int i = 0; i < 4000; ++i) {
        ASSERT_EQ(send(random() % 40000), kStatusSuccess);
        most = std::max(most, ipqBacklog(sender).bytes);
    }
    fromSender.await(4000);
    resumer.join();
    EXPECT_LE(most, (16u << 20) + 200000);
}

}  // namespace
