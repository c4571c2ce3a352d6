// A queue on the event manager's parts without its threads, on clocks that stand: the test passes
// time, makes the passes, and is the peer.

#include <cstdio>
#include <functional>
#include <thread>

#include "lib/transport/ipq/ipq_internal.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/stream_run.h"

namespace {

const std::string kKeepAlive = streamUnit(8, 0);
constexpr uint32_t kLargeBytes = 16'000'000;  // more than a connection holds
const std::string kNotice = streamUnit(0, 0, 0);

HelloFrame termsOf(uint32_t version, uint32_t limitA, uint32_t limitB, uint16_t queueLimit = 0) {
    HelloFrame frame;
    ipqHelloInit(&frame);
    storeBe32At(frame.bytes + 4, version);
    storeBe16At(frame.bytes + 12, queueLimit);
    storeBe32At(frame.bytes + 20, limitA);
    storeBe32At(frame.bytes + 24, limitB);
    return frame;
}

// What an owner is told.
struct Owner {
    std::vector<std::string> messages;
    int errors = 0;
    size_t messagesAtError = 0;
    int closes = 0;
    std::vector<AgeReport> reports;
    std::function<void(Ipq*)> onBatch, onError;

    static void read(Ipq* ipq, std::span<pelmoMsg* const> batch, void* closure) {
        auto* const self = static_cast<Owner*>(closure);
        for (pelmoMsg* message : batch) {
            self->messages.emplace_back(reinterpret_cast<const char*>(msgImage(message)),
                                        message->length);
            msgRelease(message);
        }
        if (self->onBatch) self->onBatch(ipq);
    }
    static void fail(Ipq* ipq, void* closure) {
        auto* const self = static_cast<Owner*>(closure);
        ++self->errors;
        self->messagesAtError = self->messages.size();
        if (self->onError) self->onError(ipq);
    }
    static void produce(
        Ipq*, uint32_t level, uint32_t waiting, uint32_t dropped, uint64_t bytes, void* closure) {
        static_cast<Owner*>(closure)->reports.push_back({level, waiting, dropped, bytes});
    }
    static void close(void* closure) {
        if (closure != nullptr) ++static_cast<Owner*>(closure)->closes;
    }
};

struct StandingQueue : testing::Test {
    StandingQueue() {
        EXPECT_EQ(Queue_Create(nullptr, kTimerQueueId, "timers", false, false), kStatusSuccess);
    }
    ~StandingQueue() override { end(); }

    Socket* connectSocket() {
        Socket* client = nullptr;
        if (socketCreateClient(&client, 0, kFirstIoQueueId, false) != kSocketDone) {
            return nullptr;
        }
        socketSetMode(client, SocketMode::kBlocking);
        if (socketConnect(client, kLoopbackHost, listener.port) == kSocketDone) {
            peer = listener.take();
            return client;
        }
        // One that failed behind the system's connect isn't to fill the listener's line.
        socketDestroy(client);
        pollfd entry{.fd = listener.handle.number(), .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, 0) > 0) (void)listener.take();
        return nullptr;
    }
    pelmoStatus open(const HelloFrame* frame = nullptr) {
        end();
        owner = {};
        Socket* const client = connectSocket();
        if (client == nullptr) return kStatusNoMemory;
        pelmoStatus status = ipqCreate(&ipq, frame, kFirstIoQueueId, client);
        if (status != kStatusSuccess) return status;
        EXPECT_EQ(ipqSetErrorCallback(ipq, Owner::fail, &owner), kStatusSuccess);
        return kStatusSuccess;
    }
    void openAndRead(const HelloFrame* frame = nullptr) {
        ASSERT_EQ(open(frame), kStatusSuccess);
        ASSERT_EQ(ipqSetReadCallback(ipq, Owner::read, &owner), kStatusSuccess);
    }
    void end() {
        if (ipq == nullptr) return;
        (void)ipqClose(std::exchange(ipq, nullptr), false, Owner::close);
        passes();
    }
    // Null without memory.
    static pelmoMsg* messageOf(const std::string& bytes) {
        Buffer* const buffer = bufferCreate(static_cast<uint32_t>(bytes.size()));
        if (buffer == nullptr) return nullptr;
        std::memcpy(buffer->data, bytes.data(), bytes.size());
        pelmoMsg* message = nullptr;
        (void)msgCreateOverBuffer(&message, buffer, 0);
        bufferRelease(buffer);
        return message;
    }
    pelmoStatus send(const std::string& unit, bool urgent = false) const {
        const HeldMessage message(messageOf(unit));
        return message != nullptr ? ipqSend(ipq, message.get(), urgent) : kStatusNoMemory;
    }
    void passes() const {
        for (int i = 0; i < 3; ++i)
            stand.ioPass();
        dispatchAll(kTimerQueueId);
    }
    void timersAt(double seconds) const {
        stand.clock.set(1'000 + static_cast<int64_t>(seconds),
                        static_cast<int64_t>(seconds * 1e9) % 1'000'000'000);
        while (stand.fire(seconds) != 0)
            dispatchAll(kTimerQueueId);
    }
    void resetPeer() {
        const linger atOnce = {.l_onoff = 1, .l_linger = 0};
        setsockopt(peer.number(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
        peer = OwnHandle();
    }
    // What the peer has got, with passes meanwhile.
    std::string received(size_t atLeast = 0) const {
        std::string all;
        for (int quiet = 0; quiet < 3; ++quiet) {
            passes();
            pollfd entry{.fd = peer.number(), .events = POLLIN, .revents = 0};
            (void)poll(&entry, 1, all.size() < atLeast ? 1'000 : 0);
            char bytes[65536];
            const ssize_t got = recv(peer.number(), bytes, sizeof(bytes), MSG_DONTWAIT);
            if (got <= 0) continue;
            all.append(bytes, static_cast<size_t>(got));
            quiet = 0;
        }
        return all;
    }

    EventStand stand;
    LoopbackListener listener;
    OwnHandle peer;
    Ipq* ipq = nullptr;
    Owner owner;
};

TEST_F(StandingQueue, KeepsTheTermsOfTheHello) {
    struct Case {
        HelloFrame frame;
        pelmoStatus status;
    };
    const Case cases[] = {
        {termsOf(2, kHelloMostBytes, kHelloMostBytes), kStatusSuccess},
        {termsOf(2, 0, 0), kStatusSuccess},
        {termsOf(1, 0, 0), kStatusInvalidTransport},
        {termsOf(2, 1, 0), kStatusInvalidTransport},
        {termsOf(2, kHelloMostBytes + 1, 0), kStatusInvalidTransport},
        {termsOf(2, 0, kHelloMostBytes + 1), kStatusInvalidTransport},
    };
    for (const Case& c : cases)
        EXPECT_EQ(open(&c.frame), c.status);
    EXPECT_EQ(receiveText(peer.number(), 1), "");  // the socket of one that is refused is closed

    const HelloFrame narrowTerms = termsOf(2, 0, 100);
    openAndRead(&narrowTerms);
    EXPECT_EQ(send(streamUnit(101, 'a')), kStatusInvalidSize);
    EXPECT_EQ(send(streamUnit(100, 'a')), kStatusSuccess);
    EXPECT_EQ(received(), streamUnit(100, 'a'));
    sendText(peer.number(), streamUnit(100, 'b') + streamUnit(101, 'c'));
    passes();
    EXPECT_EQ(owner.messages.size(), 1u);
    EXPECT_EQ(owner.errors, 1);
}

TEST_F(StandingQueue, HoldsBackAndFlushes) {
    openAndRead();
    const std::string unit = streamUnit(100, 'a');
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(send(unit), kStatusSuccess);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    EXPECT_EQ(ipqWriteStatistics(ipq).attempts, 0u);
    EXPECT_EQ(ipqBacklog(ipq).messages, 3u);
    EXPECT_EQ(ipqBacklog(ipq).bytes, 300u);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    EXPECT_EQ(ipqWriteStatistics(ipq).attempts, 1u);
    EXPECT_EQ(ipqBacklog(ipq).bufferBytes, 0u);
    EXPECT_EQ(received(), unit + unit + unit);

    // A batch writes what fills a send; a hold what is above the wait limit.
    const std::string full = streamUnit(0x20000, 'f');
    ASSERT_EQ(ipqBeginBatch(ipq), kStatusSuccess);
    ASSERT_EQ(send(unit), kStatusSuccess);
    EXPECT_EQ(received(), "");
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    ASSERT_EQ(send(full), kStatusSuccess);
    EXPECT_EQ(received(), "");
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);  // the batch goes on
    EXPECT_EQ(received(), "");
    ASSERT_EQ(send(unit), kStatusSuccess);
    EXPECT_EQ(received(full.size()), unit + full + unit);
    ASSERT_EQ(ipqEndBatch(ipq), kStatusSuccess);
    ipqSetWaitLimit(ipq, 300'000);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(send(full), kStatusSuccess);
    EXPECT_EQ(received(), "");
    ASSERT_EQ(send(full), kStatusSuccess);
    EXPECT_EQ(received(4 * full.size()), full + full + full + full);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    const uint64_t heldMessages = ipqWriteStatistics(ipq).messages - 3;

    ASSERT_EQ(ipqSetBatchMode(ipq, 1), kStatusSuccess);
    for (double from = 0; from < 10; from += 5) {
        timersAt(from);
        ASSERT_EQ(send(unit), kStatusSuccess);
        ASSERT_EQ(send(unit), kStatusSuccess);
        timersAt(from + 0.024);
        EXPECT_EQ(received(), "") << from;
        timersAt(from + 1);
        EXPECT_EQ(received(), unit + unit) << from;
        timersAt(from + 2);  // ends the timer
    }
    ASSERT_EQ(send(streamUnit(0x20000, 'b')), kStatusSuccess);
    EXPECT_EQ(received(0x20000), streamUnit(0x20000, 'b'));
    EXPECT_EQ(ipqWriteStatistics(ipq).messages, 8u + heldMessages);
}

TEST_F(StandingQueue, UrgentMessagesPassWhatWaits) {
    openAndRead();
    const std::string large = streamUnit(kLargeBytes, 'a');
    const std::string other = streamUnit(3'000, 'b');
    std::string expected = large;
    ASSERT_EQ(send(large), kStatusSuccess);
    ASSERT_EQ(send(other), kStatusSuccess);
    std::vector<pelmoMsg*> urgent;
    for (const char fill : {'u', 'v', 'w'}) {
        expected += streamUnit(2'100, fill);
        urgent.push_back(messageOf(streamUnit(2'100, fill)));
    }
    EXPECT_EQ(ipqSendVector(ipq, urgent, true), kStatusSuccess);
    EXPECT_EQ(ipqBacklog(ipq).messages, 5u);
    for (pelmoMsg* message : urgent)
        msgRelease(message);
    EXPECT_TRUE(received(large.size() + 9'300) == expected + other);
    EXPECT_EQ(ipqBacklog(ipq).bytes, 0u);
}

// Neighbours in a buffer are queued as one, others apart.
TEST_F(StandingQueue, JoinsNeighboursOfAVector) {
    openAndRead();
    const std::string units[] = {streamUnit(2'100, 'a'), streamUnit(2'100, 'b'),
                                 streamUnit(2'100, 'c')};
    pelmoMsg* const first = messageOf(units[0] + units[1] + units[2]);
    pelmoMsg* messages[] = {first, nullptr, nullptr};
    ASSERT_EQ(msgCreateOverBuffer(&messages[1], first->buffer, 2'100), kStatusSuccess);
    ASSERT_EQ(msgCreateOverBuffer(&messages[2], first->buffer, 4'200), kStatusSuccess);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    ASSERT_EQ(ipqSendVector(ipq, messages, false), kStatusSuccess);
    EXPECT_EQ(ipqBacklog(ipq).bufferBytes, 6'300u);
    std::swap(messages[1], messages[2]);
    ASSERT_EQ(ipqSendVector(ipq, messages, false), kStatusSuccess);
    EXPECT_EQ(ipqBacklog(ipq).bufferBytes, 4 * 6'300u);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    EXPECT_TRUE(received() == units[0] + units[1] + units[2] + units[0] + units[2] + units[1]);
    for (pelmoMsg* message : messages)
        msgRelease(message);
}

TEST_F(StandingQueue, KeepsAnIdleConnectionAlive) {
    openAndRead();
    timersAt(59.9);
    EXPECT_EQ(received(), "");
    timersAt(60);
    EXPECT_EQ(received(), kKeepAlive);
    timersAt(120);
    EXPECT_EQ(received(), kKeepAlive);
    ASSERT_EQ(send(streamUnit(9, 'a')), kStatusSuccess);
    EXPECT_EQ(received(), streamUnit(9, 'a'));
    timersAt(180);
    EXPECT_EQ(received(), "");
    sendText(peer.number(), kKeepAlive);
    passes();
    timersAt(240);
    EXPECT_EQ(received(), "");
    timersAt(300);
    EXPECT_EQ(received(), kKeepAlive);
    EXPECT_EQ(ipqWriteStatistics(ipq).messages, 1u);
    EXPECT_EQ(owner.messages.size(), 0u);
}

// Where nothing is read the keep-alive is what finds the connection lost.
TEST_F(StandingQueue, FindsALossWithoutReading) {
    openAndRead();
    ASSERT_EQ(ipqPauseReading(ipq), kStatusSuccess);
    peer.shut();
    for (int minutes = 1; minutes < 4; ++minutes)
        timersAt(60 * minutes);
    EXPECT_EQ(owner.errors, 1);
    EXPECT_EQ(ipqFlush(ipq), kStatusInvalidIoSource);
    EXPECT_EQ(send(kKeepAlive), kStatusInvalidIoSource);

    // Where only writing fails, reading comes to its end, and tells behind what has arrived.
    openAndRead();
    sendText(peer.number(), streamUnit(9, 'a'));
    shutdown(socketHandle(ipq->socket), SHUT_WR);
    EXPECT_EQ(send(streamUnit(9, 'b')), kStatusInvalidIoSource);
    passes();
    EXPECT_EQ(owner.errors, 1);
    EXPECT_EQ(owner.messagesAtError, 1u);
}

TEST_F(StandingQueue, ChecksTheAgeOfWhatWaits) {
    for (const bool discards : {false, true}) {
        const double from = discards ? 1'000 : 0;
        timersAt(from);
        openAndRead();
        EXPECT_EQ(ipqSetAgeCheck(ipq, discards, -1, 0, nullptr, nullptr), kStatusInvalidArgument);
        ASSERT_EQ(ipqSetAgeCheck(ipq, discards, 2, 0, Owner::produce, &owner), kStatusSuccess);
        ASSERT_EQ(send(streamUnit(kLargeBytes, 'a')), kStatusSuccess);
        ASSERT_EQ(send(streamUnit(3'000, 'b')), kStatusSuccess);
        for (const double seconds : {0.5, 1.0, 1.5, 2.0}) {
            timersAt(from + seconds);
            EXPECT_EQ(owner.reports.size(), 0u) << seconds;
        }
        timersAt(from + 2.5);
        timersAt(from + 3.0);
        ASSERT_EQ(owner.reports.size(), discards ? 1u : 2u);
        const AgeReport& report = owner.reports[0];
        EXPECT_EQ(report.level, discards ? 1u : 2u);
        EXPECT_EQ(report.waiting, 2u);
        EXPECT_EQ(report.droppedBytes, discards ? 3'000u : 0u);
        EXPECT_EQ(received(kLargeBytes).size(), discards ? kLargeBytes : kLargeBytes + 3'000);
        timersAt(from + 10);
        EXPECT_LE(owner.reports.size(), 2u);
    }
}

// However a stream ends: the messages ahead of the end come first, and the owner is told once.
TEST_F(StandingQueue, TellsTheEndBehindTheMessages) {
    struct Case {
        std::string bytes;
        bool closes;
        std::string answer;
    };
    const std::string unit = streamUnit(20, 'a');
    const Case cases[] = {
        {unit + unit + kNotice, false, kNotice},
        {unit + kKeepAlive + unit + streamUnit(9, 0, 1), false, ""},
        {unit + unit + streamUnit(3, 0), false, ""},
        {unit + unit, true, ""},
        {unit + unit + unit.substr(0, 19), true, ""},
    };
    for (const Case& c : cases) {
        openAndRead();
        sendText(peer.number(), c.bytes);
        if (c.closes) shutdown(peer.number(), SHUT_WR);
        EXPECT_EQ(received(), c.answer);
        EXPECT_EQ(owner.messages, std::vector<std::string>(2, unit));
        EXPECT_EQ(owner.errors, 1);
        EXPECT_EQ(owner.messagesAtError, 2u);
        EXPECT_EQ(send(unit), kStatusInvalidIoSource);
        EXPECT_EQ(ipqResume(ipq), kStatusInvalidIoSource);
        ASSERT_EQ(ipqClose(std::exchange(ipq, nullptr), true, Owner::close), kStatusSuccess);
        passes();
        EXPECT_EQ(owner.closes, 1);
    }
}

TEST_F(StandingQueue, PausesWithinTheCallback) {
    openAndRead();
    owner.onBatch = [](Ipq* self) { EXPECT_EQ(ipqPauseReading(self), kStatusSuccess); };
    std::string stream;
    while (stream.size() < 1'000'000)
        stream += streamUnit(5'000, 'a');
    std::thread writer([&] { sendText(peer.number(), stream); });
    while (owner.messages.empty())
        passes();
    for (size_t before = 0; owner.messages.size() * 5'000 < stream.size(); passes()) {
        passes();
        EXPECT_TRUE(before == 0 || owner.messages.size() == before);
        const uint32_t attempts = ipqReadStatistics(ipq).attempts;
        const size_t paused = owner.messages.size();
        ASSERT_EQ(ipqResume(ipq), kStatusSuccess);
        passes();
        // Where nothing has arrived yet the callback hasn't paused it again.
        before = owner.messages.size() != paused ? owner.messages.size() : 0;
        EXPECT_LE(ipqReadStatistics(ipq).attempts, attempts + 3);
    }
    writer.join();
}

TEST_F(StandingQueue, ReadsOneMessageAndNothingBehind) {
    ASSERT_EQ(open(), kStatusSuccess);
    const std::string unit = streamUnit(100'000, 'a');
    sendText(peer.number(), unit.substr(0, 70'000));
    pelmoMsg* message = nullptr;
    const auto readUntil = [&](bool isThere) {
        for (int i = 0; i < 100 && (message != nullptr) != isThere; ++i)
            EXPECT_EQ(ipqReadOne(ipq, &message), kStatusSuccess);
        return message != nullptr;
    };
    EXPECT_FALSE(readUntil(true));
    sendText(peer.number(), unit.substr(70'000) + kKeepAlive + streamUnit(9, 'b') + kNotice);
    ASSERT_TRUE(readUntil(true));
    EXPECT_EQ(message->length, 100'000u);
    msgRelease(message);
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusSuccess);
    EXPECT_EQ(message, nullptr);
    // The next one comes by the callback.
    ASSERT_EQ(ipqSetReadCallback(ipq, Owner::read, &owner), kStatusSuccess);
    EXPECT_EQ(received(), kNotice);
    EXPECT_EQ(owner.messages, std::vector<std::string>{streamUnit(9, 'b')});
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusInvalidIoSource);

    ASSERT_EQ(open(), kStatusSuccess);
    EXPECT_FALSE(ipqSetBlocking(ipq, true));
    ipqSetDeadline(ipq, stand.start);
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusTimeout);
    EXPECT_EQ(send(streamUnit(kLargeBytes, 'a')), kStatusTimeout);
    EXPECT_TRUE(ipqSetBlocking(ipq, false));
}

// All goes out ahead of the notice; a peer that goes on and on doesn't hold the close up.
TEST_F(StandingQueue, GracefulCloseHasItsTime) {
    for (const bool interrupts : {false, true}) {
        openAndRead();
        const std::string large = streamUnit(kLargeBytes, 'a');
        ASSERT_EQ(send(large), kStatusSuccess);
        std::thread reader([&] {
            EXPECT_TRUE(receiveText(peer.number(), large.size() + 8) == large + kNotice);
            if (interrupts) return ipqInterrupt(ipq);
            const std::string flood(65'536, 'x');
            int sends = 0;
            while (sends < 3'000 &&
                   ::send(peer.number(), flood.data(), flood.size(), MSG_NOSIGNAL) > 0) {
                stand.clock.set(1'006 + ++sends);
            }
            EXPECT_LT(sends, 3'000);
        });
        ipqRetain(ipq);
        EXPECT_EQ(ipqClose(ipq, true, Owner::close), kStatusSuccess);
        reader.join();
        EXPECT_EQ(ipqClose(ipq, true, Owner::close), kStatusInvalidArgument);
        EXPECT_EQ(ipqBacklog(ipq).bytes, 0u);
        passes();
        EXPECT_EQ(owner.closes, 0);
        ipqRelease(std::exchange(ipq, nullptr));
        EXPECT_EQ(owner.closes, 1);
        stand.clock.set(1'000);
    }
}

// It goes on while bytes leave, and says what didn't.
TEST_F(StandingQueue, GracefulCloseLosesNothingUntold) {
    const std::string large = streamUnit(kLargeBytes, 'a');
    enum class Peer { kReadsSlowly, kReadsNothing, kResets };
    for (const Peer kind : {Peer::kReadsSlowly, Peer::kReadsNothing, Peer::kResets}) {
        SCOPED_TRACE(static_cast<int>(kind));
        openAndRead();
        ASSERT_EQ(send(large), kStatusSuccess);
        ASSERT_EQ(send(streamUnit(100, 'b')), kStatusSuccess);
        std::thread reader([&] {
            if (kind == Peer::kResets) return resetPeer();
            if (kind == Peer::kReadsNothing) return stand.clock.set(1'006);
            size_t left = large.size() + 100 + 8;
            for (int64_t now = 1'004; left != 0; now += 4) {
                const size_t part = std::min<size_t>(left, 8'000'000);
                EXPECT_EQ(receiveText(peer.number(), part).size(), part);
                left -= part;
                stand.clock.set(now);
            }
            shutdown(peer.number(), SHUT_WR);
        });
        IpqEnd end;
        if (kind == Peer::kReadsNothing) end.deadline = 1'006;
        ipqRetain(ipq);
        EXPECT_EQ(ipqClose(ipq, true, Owner::close, &end), kStatusSuccess);
        reader.join();
        const bool isLost = kind != Peer::kReadsSlowly;
        EXPECT_EQ(end.losses.unconfirmed, isLost);
        EXPECT_EQ(end.losses.messages, isLost ? 2u : 0u);
        EXPECT_TRUE(isLost ? end.losses.bytes > kLargeBytes / 2 : end.losses.bytes == 0);
        ipqRelease(std::exchange(ipq, nullptr));
        stand.clock.set(1'000);
    }
}

// Nothing that may have left is to be sent again, and what certainly hasn't is known.
TEST_F(StandingQueue, SaysHowMuchOfAVectorMayHaveLeft) {
    const HelloFrame terms = termsOf(2, 0, 10'000'000);
    openAndRead(&terms);
    std::vector<HeldMessage> held;
    std::vector<pelmoMsg*> messages;
    for (char fill = 'a'; fill < 'g'; ++fill) {
        held.emplace_back(messageOf(streamUnit(10'000'000, fill)));
        messages.push_back(held.back().get());
    }
    // One that is too long leaves none.
    const HeldMessage tooLong(messageOf(streamUnit(10'000'001, 'x')));
    uint32_t taken = 77;
    pelmoMsg* const bad[] = {messages[0], tooLong.get()};
    EXPECT_EQ(ipqSendVector(ipq, bad, false, &taken), kStatusInvalidSize);
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(ipqWriteStatistics(ipq).attempts, 0u);

    constexpr size_t kRead = 25'000'000;
    EXPECT_FALSE(ipqSetBlocking(ipq, true));
    std::thread reader([&] {
        EXPECT_EQ(receiveText(peer.number(), kRead).size(), kRead);
        resetPeer();
    });
    EXPECT_EQ(ipqSendVector(ipq, messages, false, &taken), kStatusInvalidIoSource);
    reader.join();
    EXPECT_GE(taken, 2u);
    EXPECT_LT(taken, 6u);
    // The sender knows of those that it can send again; the others are lost with what the system
    // held.
    const SendLosses losses = ipqUnsent(ipq);
    EXPECT_LE(losses.bytes, 60'000'000 - kRead);
    EXPECT_LE(losses.messages + 2, taken + 1u);
}

TEST_F(StandingQueue, AccountsForItsTraffic) {
    setenv("IPQ_ACCOUNTING", "5", 1);
    openAndRead();
    unsetenv("IPQ_ACCOUNTING");
    testing::internal::CaptureStdout();
    std::string asked;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(send(streamUnit(100, 'a')), kStatusSuccess);
        asked += "    100";
    }
    sendText(peer.number(), streamUnit(20, 'b'));
    passes();
    const uint32_t reads = ipqReadStatistics(ipq).attempts;
    end();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              asked + "\n" + asked +
                  "\n\nIPQ - WRITE:\n"
                  "  Processed 100 messages totalling 10000 bytes\n"
                  "  Used 100 attempts with 0 failures and 0 partials\n"
                  "  Averaged 100.00 bytes and 1.00 messages per attempt\n"
                  "  Averaged 100.00 bytes per write\n"
                  "  0.0% failure rate, 0.0% partial rate\n"
                  "  0 zero sends.\n"
                  "\nIPQ - READ:\n"
                  "  Processed 1 messages totalling 20 bytes\n"
                  "  Used 1 attempts with 0 failures and 0 partials\n"
                  "  Averaged 20.00 bytes and 1.00 messages per attempt\n"
                  "  Averaged 20.00 bytes per write\n");
    EXPECT_EQ(reads, 1u);
}

// Whatever fails, each queue comes to its end.
TEST_F(StandingQueue, SurvivesEachFailingAllocation) {
    const std::string unit = streamUnit(5'000, 'a');
    const size_t failing = eachAllocationFails([&] {
        if (open() != kStatusSuccess) return;
        const int bytes = 4096;
        setsockopt(socketHandle(ipq->socket), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        (void)ipqSetAgeCheck(ipq, true, 1, 0, Owner::produce, &owner);
        (void)ipqSetBatchMode(ipq, 1);
        (void)ipqSetReadCallback(ipq, Owner::read, &owner);
        for (int i = 0; i < 60; ++i)
            (void)send(unit);
        (void)ipqClose(std::exchange(ipq, nullptr), false, Owner::close);
        allocationsHeal();
        passes();
        EXPECT_EQ(owner.closes, 1);
    });
    EXPECT_GT(failing, 30u);
}

// A read without memory loses the connection, and says so.
TEST_F(StandingQueue, ReadsOrTellsWithoutMemory) {
    const std::string unit = streamUnit(5'000, 'a');
    size_t after = 0;
    for (bool isLast = false; !isLast; ++after) {
        ASSERT_LT(after, 100u);
        openAndRead();
        sendText(peer.number(), unit);
        wakeupPairWake(stand.io->pair);
        ASSERT_TRUE(ioThreadPass(stand.io, true));
        {
            const FailAlloc fail{.after = after};
            dispatchAll(kFirstIoQueueId);
            isLast = allocationsFailed() == 0;
        }
        EXPECT_EQ(owner.messages.size(), owner.errors == 0 ? 1u : 0u);
        EXPECT_TRUE(owner.errors == 0 || !isLast);
    }
    EXPECT_GT(after, 3u);
}

}  // namespace
