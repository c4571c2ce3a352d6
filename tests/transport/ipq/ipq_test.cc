// A queue on the event manager's parts without its threads, on stopped clocks: the test moves the
// time, makes the passes, and is the peer. And the frames by which both ends agree.

#include <atomic>
#include <functional>
#include <thread>

#include "lib/base/bytes.h"
#include "lib/transport/ipq/hello.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/loopback_peer.h"
#include "tests/support/stream_run.h"

namespace {

const std::string kKeepAlive = streamUnit(8, 0);
constexpr uint32_t kLargeBytes = 16'000'000;  // more than a connection holds
const std::string kNotice = streamUnit(0, 0, 0);

// What an owner gets.
struct Owner {
    std::vector<std::string> messages;
    int errors = 0;
    size_t messagesAtError = 0;
    int closes = 0;
    std::function<void(Ipq*)> onBatch;

    static void read(Ipq* ipq, std::span<pelmoMsg* const> batch, void* closure) {
        auto* const self = static_cast<Owner*>(closure);
        for (pelmoMsg* message : batch) {
            self->messages.emplace_back(reinterpret_cast<const char*>(msgImage(message)),
                                        message->length);
            msgRelease(message);
        }
        if (self->onBatch) self->onBatch(ipq);
    }
    static void fail(Ipq*, void* closure) {
        auto* const self = static_cast<Owner*>(closure);
        ++self->errors;
        self->messagesAtError = self->messages.size();
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

    void open(const HelloFrame* frame = nullptr) {
        end();
        owner = {};
        Socket* client = nullptr;
        EXPECT_EQ(socketCreateClient(&client, 0, kFirstIoQueueId, false), kSocketDone);
        socketSetMode(client, SocketMode::kBlocking);
        EXPECT_EQ(socketConnect(client, kLoopbackHost, listener.port), kSocketDone);
        peer = listener.take();
        EXPECT_EQ(ipqCreate(&ipq, frame, kFirstIoQueueId, client), kStatusSuccess);
        EXPECT_EQ(ipqSetErrorCallback(ipq, Owner::fail, &owner), kStatusSuccess);
    }
    void openAndRead(const HelloFrame* frame = nullptr) {
        open(frame);
        ASSERT_EQ(ipqSetReadCallback(ipq, Owner::read, &owner), kStatusSuccess);
    }
    void end() {
        if (ipq == nullptr) return;
        (void)ipqClose(std::exchange(ipq, nullptr), false, Owner::close);
        passes();
    }
    static pelmoMsg* messageOf(const std::string& bytes) {
        Buffer* const buffer = bufferCreate(static_cast<uint32_t>(bytes.size()));
        std::memcpy(buffer->data, bytes.data(), bytes.size());
        pelmoMsg* message = nullptr;
        EXPECT_EQ(msgCreateOverBuffer(&message, buffer, 0), kStatusSuccess);
        bufferRelease(buffer);
        return message;
    }
    pelmoStatus send(const std::string& unit) const {
        const HeldMessage message(messageOf(unit));
        return ipqSend(ipq, message.get(), false);
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

TEST_F(StandingQueue, HoldsBackAndFlushes) {
    openAndRead();
    const std::string unit = streamUnit(100, 'a');
    const std::string full = streamUnit(0x20000, 'f');
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(send(unit), kStatusSuccess);
    for (const uint32_t attempts : {0u, 1u}) {
        ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
        EXPECT_EQ(ipqWriteStatistics(ipq).attempts, attempts);
    }
    EXPECT_EQ(received(), unit + unit + unit);

    // A batch writes what fills a send; a hold what is above the wait limit.
    ASSERT_EQ(ipqBeginBatch(ipq), kStatusSuccess);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    ASSERT_EQ(send(full), kStatusSuccess);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);  // the batch goes on
    EXPECT_EQ(received(), "");
    ASSERT_EQ(send(unit), kStatusSuccess);
    EXPECT_EQ(received(full.size()), full + unit);
    ASSERT_EQ(ipqEndBatch(ipq), kStatusSuccess);
    ipqSetWaitLimit(ipq, 300'000);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(received(), "");
        ASSERT_EQ(send(full), kStatusSuccess);
    }
    EXPECT_EQ(received(4 * full.size()), full + full + full + full);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
}

// Sends with so many nanoseconds from each to the next, then a step; what is written by then.
TEST_F(StandingQueue, GathersSendsThatFollowClosely) {
    const std::string unit = streamUnit(100, 'a');
    constexpr int64_t kClose = 49'999;
    int64_t now = 0;
    const auto sendAfter = [&](int64_t nanoseconds) {
        stand.clock.set(1'000, now += nanoseconds);
        ASSERT_EQ(send(unit), kStatusSuccess);
    };
    const auto sendClose = [&] { sendAfter(kClose); };
    const auto timersAfter = [&](double seconds) {
        timersAt(static_cast<double>(now) / 1e9 + seconds);
    };
    const struct {
        const char* what;
        int64_t gap;
        int sends;
        std::function<void()> step;
        uint32_t writes;
        uint32_t waiting;
    } cases[] = {
        {"pauses", 50'000, 40, [] {}, 40, 0},
        {"a few", kClose, 17, [] {}, 17, 0},
        {"the first that is gathered", kClose, 18, [] {}, 17, 1},
        {"as much as is written at once", kClose, 17 + 328, [] {}, 18, 0},
        {"the tail", kClose, 40, [&] { timersAfter(0.001); }, 18, 0},
        {"a pause", kClose, 40, [&] { sendAfter(50'000); }, 18, 0},
        {"after a pause", kClose, 40, [&] { sendAfter(50'000), sendClose(); }, 19, 0},
        {"an answer", kClose, 40,
         [&] {
             sendText(peer.number(), unit);
             passes();
             sendClose();
         },
         18, 0},
        {"a hold", kClose, 40,
         [&] {
             EXPECT_EQ(ipqHold(ipq), kStatusSuccess);
             EXPECT_EQ(ipqWriteStatistics(ipq).attempts, 18u);  // what was gathered before
             timersAfter(0.001);
             sendClose();
         },
         18, 1},
        {"little room", kClose, 17,
         [&] {
             ipqSetWaitLimit(ipq, 1'000);
             for (int i = 0; i < 4; ++i)
                 EXPECT_EQ(send(streamUnit(3'000, 'b')), kStatusSuccess);
         },
         19, 0},
        {"a vector", kClose, 16,
         [&] {
             const HeldMessage message(messageOf(unit));
             pelmoMsg* const two[] = {message.get(), message.get()};
             for (int i = 0; i < 3; ++i)
                 EXPECT_EQ(ipqSendVector(ipq, two, false), kStatusSuccess);
         },
         17, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        now = 0;
        openAndRead();
        for (int i = 0; i < c.sends; ++i)
            sendAfter(c.gap);
        c.step();
        EXPECT_EQ(ipqWriteStatistics(ipq).attempts, c.writes);
        EXPECT_EQ(ipqBacklog(ipq).messages, c.waiting);
        // No timer goes on once nothing is sent, and the close loses nothing.
        if (c.waiting == 0) timersAfter(0.01);
        EXPECT_EQ(ipq->flushTimer != kNoId, c.waiting != 0 && ipq->holds == 0);
        const size_t sent = ipqWriteStatistics(ipq).bytes + ipqBacklog(ipq).bytes;
        std::thread reader([&] {
            EXPECT_EQ(receiveText(peer.number(), sent + kNotice.size()).size(),
                      sent + kNotice.size());
            peer = OwnHandle();
        });
        EXPECT_EQ(ipqClose(std::exchange(ipq, nullptr), true, Owner::close), kStatusSuccess);
        reader.join();
        passes();
    }

    open();
    for (int i = 0; i < 20; ++i)
        sendClose();
    EXPECT_EQ(ipqBacklog(ipq).messages, 3u);
    resetPeer();
    timersAfter(0.002);
    EXPECT_EQ(owner.errors, 1);
    EXPECT_GE(ipqUnsent(ipq).messages, 3u);
}

// Neighbours in a buffer are queued as one, others apart; urgent ones stay in order.
TEST_F(StandingQueue, SendsVectors) {
    openAndRead();
    std::string units[3], large = streamUnit(kLargeBytes, 'l');
    for (int i = 0; i < 3; ++i)
        units[i] = streamUnit(2'100, static_cast<char>('a' + i));
    const HeldMessage first(messageOf(units[0] + units[1] + units[2]));
    pelmoMsg* messages[] = {first.get(), nullptr, nullptr};
    ASSERT_EQ(msgCreateOverBuffer(&messages[1], messages[0]->buffer, 2'100), kStatusSuccess);
    ASSERT_EQ(msgCreateOverBuffer(&messages[2], messages[0]->buffer, 4'200), kStatusSuccess);
    const HeldMessage second(messages[1]), third(messages[2]);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    ASSERT_EQ(ipqSendVector(ipq, messages, false), kStatusSuccess);
    EXPECT_EQ(ipqBacklog(ipq).bufferBytes, 6'300u);
    std::swap(messages[1], messages[2]);
    ASSERT_EQ(ipqSendVector(ipq, messages, false), kStatusSuccess);
    EXPECT_EQ(ipqBacklog(ipq).bufferBytes, 4 * 6'300u);
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    const std::string swapped = units[0] + units[2] + units[1];
    EXPECT_TRUE(received() == units[0] + units[1] + units[2] + swapped);
    ASSERT_EQ(send(large), kStatusSuccess);
    ASSERT_EQ(send(units[0]), kStatusSuccess);
    EXPECT_EQ(ipqSendVector(ipq, messages, true), kStatusSuccess);
    EXPECT_TRUE(received(large.size() + 8'400) == large + swapped + units[0]);
}

TEST_F(StandingQueue, KeepsAnIdleConnectionAlive) {
    openAndRead();
    const struct {
        double seconds;
        std::string sent, arrives, received;  // before that time, and by then
    } steps[] = {{59.9, "", "", ""},        {60, "", "", kKeepAlive},
                 {120, "", "", kKeepAlive}, {180, streamUnit(9, 'a'), "", streamUnit(9, 'a')},
                 {240, "", kKeepAlive, ""}, {300, "", "", kKeepAlive}};
    for (const auto& step : steps) {
        if (!step.sent.empty()) {
            ASSERT_EQ(send(step.sent), kStatusSuccess);
        }
        sendText(peer.number(), step.arrives);
        passes();
        timersAt(step.seconds);
        EXPECT_EQ(received(), step.received) << step.seconds;
    }
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

    // Where only writing fails, reading comes to its end, and reports it after what has arrived.
    openAndRead();
    sendText(peer.number(), streamUnit(9, 'a'));
    shutdown(socketHandle(ipq->socket), SHUT_WR);
    EXPECT_EQ(send(streamUnit(9, 'b')), kStatusInvalidIoSource);
    passes();
    EXPECT_EQ(owner.errors, 1);
    EXPECT_EQ(owner.messagesAtError, 1u);
}

TEST_F(StandingQueue, PausesWithinTheCallback) {
    openAndRead();
    owner.onBatch = [](Ipq* self) { EXPECT_EQ(ipqPauseReading(self), kStatusSuccess); };
    constexpr size_t kUnits = 40;
    for (size_t i = 0; i < kUnits; ++i)
        sendText(peer.number(), streamUnit(5'000, 'a'));
    for (size_t before = 0; owner.messages.size() < kUnits; before = owner.messages.size()) {
        ASSERT_EQ(ipqResume(ipq), kStatusSuccess);
        while (owner.messages.size() == before)
            passes();
        const size_t paused = owner.messages.size();
        passes();
        EXPECT_EQ(owner.messages.size(), paused);
    }
}

TEST_F(StandingQueue, ReadsOneMessageAndNothingAfterIt) {
    open();
    const std::string stream = streamUnit(100'000, 'a') + kKeepAlive + streamUnit(9, 'b') + kNotice;
    pelmoMsg* message = nullptr;
    for (const std::string& part : {stream.substr(0, 70'000), stream.substr(70'000)}) {
        EXPECT_EQ(message, nullptr);
        sendText(peer.number(), part);
        for (int i = 0; i < 100 && message == nullptr; ++i)
            EXPECT_EQ(ipqReadOne(ipq, &message), kStatusSuccess);
    }
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->length, 100'000u);
    msgRelease(message);
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusSuccess);
    EXPECT_EQ(message, nullptr);
    // The next one comes by the callback.
    ASSERT_EQ(ipqSetReadCallback(ipq, Owner::read, &owner), kStatusSuccess);
    EXPECT_EQ(received(), kNotice);
    EXPECT_EQ(owner.messages, std::vector<std::string>{streamUnit(9, 'b')});
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusInvalidIoSource);

    open();
    EXPECT_FALSE(ipqSetBlocking(ipq, true));
    ipqSetDeadline(ipq, stand.start);
    EXPECT_EQ(ipqReadOne(ipq, &message), kStatusTimeout);
    EXPECT_EQ(send(streamUnit(kLargeBytes, 'a')), kStatusTimeout);
}

// All goes out before the notice. It goes on while bytes leave, and reports what did not leave.
TEST_F(StandingQueue, GracefulCloseReportsWhatItLoses) {
    constexpr int kNoWait = MSG_DONTWAIT | MSG_NOSIGNAL;
    const std::string large = streamUnit(40'000'000, 'a');
    enum class Peer { kFloods, kInterrupts, kReadsSlowly, kReadsNothing, kResets };
    using enum Peer;
    for (const Peer kind : {kFloods, kInterrupts, kReadsSlowly, kReadsNothing, kResets}) {
        SCOPED_TRACE(static_cast<int>(kind));
        openAndRead();
        ASSERT_EQ(send(large), kStatusSuccess);
        ASSERT_EQ(send(streamUnit(100, 'b')), kStatusSuccess);
        std::atomic<bool> isClosed = false;
        std::thread reader([&] {
            if (kind == kResets) return resetPeer();
            if (kind == kReadsNothing) return stand.clock.set(1'006);
            size_t left = large.size() + 100 + 8;
            for (int64_t now = 1'002; left != 0; now += 2) {
                const size_t part = std::min<size_t>(left, 4'000'000);
                const std::string got = receiveText(peer.number(), part);
                EXPECT_TRUE(got.size() == part && (left != part || got.ends_with(kNotice)));
                left -= part;
                if (kind == kReadsSlowly) stand.clock.set(now);
            }
            if (kind == kInterrupts) return ipqInterrupt(ipq);
            if (kind == kReadsSlowly) return (void)shutdown(peer.number(), SHUT_WR);
            const std::string flood(65'536, 'x');
            for (int64_t now = 1'007; !isClosed; ++now) {  // the close doesn't wait for its end
                if (::send(peer.number(), flood.data(), flood.size(), kNoWait) <= 0)
                    (void)poll(nullptr, 0, 1);
                stand.clock.set(now);
            }
        });
        IpqEnd end;
        if (kind == kReadsNothing) end.deadline = 1'006;
        ipqRetain(ipq);
        EXPECT_EQ(ipqClose(ipq, true, Owner::close, &end), kStatusSuccess);
        isClosed = true;
        reader.join();
        EXPECT_EQ(ipqClose(ipq, true, Owner::close), kStatusInvalidArgument);
        const bool isLost = kind == kReadsNothing || kind == kResets;
        EXPECT_EQ(end.losses.unconfirmed, kind != kReadsSlowly);
        if (isLost) {
            EXPECT_EQ(end.losses.messages, 2u);
            EXPECT_GT(end.losses.bytes, kLargeBytes / 2);
        }
        passes();
        EXPECT_EQ(owner.closes, 0);
        ipqRelease(std::exchange(ipq, nullptr));
        EXPECT_EQ(owner.closes, 1);
        stand.clock.set(1'000);
    }
}

// Nothing that may have left is to be sent again, and what certainly hasn't is known.
TEST_F(StandingQueue, ReportsHowMuchOfAVectorMayHaveLeft) {
    HelloFrame terms;
    ipqHelloInit(&terms);
    storeBe32At(terms.bytes + 24, 10'000'000);
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
        stand.clock.set(1'000, i * 1'000'000);
        ASSERT_EQ(send(streamUnit(100, 'a')), kStatusSuccess);
        asked += "    100";
    }
    sendText(peer.number(), streamUnit(20, 'b'));
    passes();
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
}

constexpr uint32_t kMost = kHelloMostBytes;

HelloFrame frameOf(const HelloTerms& terms) {
    HelloFrame frame = {};
    storeBe32At(frame.bytes, terms.type);
    storeBe32At(frame.bytes + 4, terms.version);
    storeBe16At(frame.bytes + 12, terms.queueLimit);
    storeBe16At(frame.bytes + 14, terms.format);
    storeBe32At(frame.bytes + 20, terms.limitA);
    storeBe32At(frame.bytes + 24, terms.limitB);
    return frame;
}

TEST(Hello, AnswersByTheTerms) {
    struct Case {
        HelloTerms from, to;
    };
    const Case cases[] = {
        {{2, 2, 0, 1, kMost, kMost}, {3, 2, 0, 1, kMost, kMost}},
        {{2, 2, 7, 1, 100, 200}, {3, 2, 7, 1, 200, 100}},
        {{3, 2, 0, 1, kMost, kMost}, {1, 2, 0, 1, kMost, kMost}},
        {{3, 2, 0, 1, kMost - 1, 5}, {1, 2, 0, 1, 5, kMost - 1}},
        {{3, 2, 0, 1, kMost + 1, 5}, {3, 2, 0, 1, 5, kMost}},
        {{3, 2, 0, 1, 5, UINT32_MAX}, {3, 2, 0, 1, kMost, 5}},
        {{2, 1, 0, 1, 5, 6}, {0, 1, 0, 1, 5, 6}},
        {{3, 2, 0, 2, 5, 6}, {0, 2, 0, 2, 5, 6}},
        {{1, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
        {{4, 2, 0, 1, 5, 6}, {0, 2, 0, 1, 5, 6}},
    };
    for (const Case& c : cases) {
        HelloFrame frame = frameOf(c.from);
        ipqHelloNegotiate(&frame);
        EXPECT_EQ(std::memcmp(&frame, frameOf(c.to).bytes, kHelloBytes), 0)
            << c.from.type << " " << c.from.limitA << " " << c.from.limitB;
    }
}

}  // namespace
