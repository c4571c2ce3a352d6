// A queue on the event manager's parts without its threads, on stopped clocks: the test moves the
// time, makes the passes, and is the peer.

#include <sys/ioctl.h>

#include <atomic>
#include <functional>
#include <map>
#include <sstream>
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
    static HeldMessage messageOf(const std::string& bytes) {
        Buffer* const buffer = bufferCreate(static_cast<uint32_t>(bytes.size()));
        std::memcpy(buffer->data, bytes.data(), bytes.size());
        pelmoMsg* message = nullptr;
        EXPECT_EQ(msgCreateOverBuffer(&message, buffer, 0), kStatusSuccess);
        bufferRelease(buffer);
        return HeldMessage(message);
    }
    pelmoStatus send(const std::string& unit) const {
        return ipqSend(ipq, messageOf(unit).get(), false);
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

    // Steps of a story, in words:
    //
    //     a F b9      sends a unit, of 100 bytes, of as many as a send moves, of nine
    //     v           sends a vector of two
    //     near17 far2 sends so many, each 49,999 ns or 50 us after the one before
    //     <k          what the peer sends: a keep-alive, or a unit
    //     =ab         what it got since, of each unit the letter; k for a keep-alive
    //     at60 ms1    timers, by the seconds since the start, or after the last near or far
    //     w17 q1      so many writes in all; so many messages that wait
    //     hold        and other calls; limit9 sets the wait limit
    void live(const std::string& story) {
        const std::map<std::string, pelmoStatus (*)(Ipq*)> calls = {
            {"hold", ipqHold}, {"flush", ipqFlush}, {"begin", ipqBeginBatch}, {"end", ipqEndBatch}};
        std::istringstream words(story);
        for (std::string word; words >> word;) {
            SCOPED_TRACE(story + ": " + word);
            const size_t digits = std::min(word.find_first_of("0123456789"), word.size());
            const std::string what = word.substr(0, digits);
            const double number = digits < word.size() ? std::stod(word.substr(digits)) : 0;
            const auto count = static_cast<uint32_t>(number);
            if (calls.contains(what)) {
                EXPECT_EQ(calls.at(what)(ipq), kStatusSuccess);
            } else if (what == "near" || what == "far") {
                for (uint32_t i = 0; i < count; ++i) {
                    stand.clock.set(1'000, sentAt += what == "near" ? 49'999 : 50'000);
                    EXPECT_EQ(send(streamUnit(100, 'a')), kStatusSuccess);
                }
            } else if (what == "at") {
                timersAt(number);
            } else if (what == "ms") {
                timersAt(static_cast<double>(sentAt) / 1e9 + number / 1e3);
            } else if (what == "limit") {
                ipqSetWaitLimit(ipq, count);
            } else if (what == "v") {
                const HeldMessage message = messageOf(unitOf('a'));
                pelmoMsg* const two[] = {message.get(), message.get()};
                EXPECT_EQ(ipqSendVector(ipq, two, false), kStatusSuccess);
            } else if (what == "w") {
                EXPECT_EQ(ipqWriteStatistics(ipq).attempts, count);
            } else if (what == "q") {
                EXPECT_EQ(ipqBacklog(ipq).messages, count);
            } else if (what[0] == '<') {
                sendText(peer.number(), what == "<k" ? kKeepAlive : unitOf(what[1]));
                passes();
            } else if (what[0] == '=') {
                std::string expected;
                for (const char letter : what.substr(1))
                    expected += letter == 'k' ? kKeepAlive : unitOf(letter);
                EXPECT_TRUE(received(expected.size()) == expected);
            } else {
                EXPECT_EQ(send(unitOf(what[0], count)), kStatusSuccess);
            }
        }
    }
    static std::string unitOf(char letter, uint32_t size = 0) {
        const uint32_t usual = letter == 'F' ? kMostSendBytes : 100;
        return streamUnit(size != 0 ? size : usual, letter);
    }

    EventStand stand;
    LoopbackListener listener;
    OwnHandle peer;
    Ipq* ipq = nullptr;
    Owner owner;
    int64_t sentAt = 0;  // nanoseconds from the start: the last send by near or far
};

TEST_F(StandingQueue, HoldsBackAndFlushes) {
    openAndRead();
    live("hold hold a b c flush w0 flush w1 =abc");
    // A batch writes what fills a send; a hold what is above the wait limit.
    live("begin hold F flush = a =Fa end");
    live("limit300000 hold F = F = F = F =FFFF flush");
}

TEST_F(StandingQueue, GathersSendsThatFollowClosely) {
    for (const std::string story : {
             "far40 w40 q0",
             "near17 w17 q0",
             "near18 w17 q1",
             "near345 w18 q0",  // as much as is written at once
             "near40 ms1 w18 q0",
             "near40 far1 w18 q0",
             "near40 far1 near1 w19 q0",
             "near40 <a near1 w18 q0",
             "near40 hold w18 ms1 near1 w18 q1",  // what was gathered before is written first
             "near16 v v v w17 q4",
             "near17 limit1000 b3000 b3000 b3000 b3000 w19 q0",
         }) {
        SCOPED_TRACE(story);
        sentAt = 0;
        openAndRead();
        live(story);
        // No timer goes on once nothing is sent, and the close loses nothing.
        const bool waits = ipqBacklog(ipq).messages != 0;
        if (!waits) live("ms10");
        EXPECT_EQ(ipq->flushTimer != kNoId, waits && ipq->holds == 0);
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
    live("near20 q3");
    resetPeer();
    live("ms2");
    EXPECT_EQ(owner.errors, 1);
    EXPECT_GE(ipqUnsent(ipq).messages, 3u);
}

// Neighbours in a buffer are queued as one, others apart; urgent ones stay in order.
TEST_F(StandingQueue, SendsVectors) {
    openAndRead();
    const std::string a = streamUnit(2'100, 'a'), b = streamUnit(2'100, 'b'),
                      c = streamUnit(2'100, 'c'), large = streamUnit(kLargeBytes, 'l');
    const HeldMessage first = messageOf(a + b + c);
    pelmoMsg* messages[] = {first.get(), nullptr, nullptr};
    ASSERT_EQ(msgCreateOverBuffer(&messages[1], messages[0]->buffer, 2'100), kStatusSuccess);
    ASSERT_EQ(msgCreateOverBuffer(&messages[2], messages[0]->buffer, 4'200), kStatusSuccess);
    const HeldMessage second(messages[1]), third(messages[2]);
    ASSERT_EQ(ipqHold(ipq), kStatusSuccess);
    for (const uint32_t bufferBytes : {6'300u, 4 * 6'300u}) {
        ASSERT_EQ(ipqSendVector(ipq, messages, false), kStatusSuccess);
        EXPECT_EQ(ipqBacklog(ipq).bufferBytes, bufferBytes);
        messages[1] = third.get();
        messages[2] = second.get();
    }
    ASSERT_EQ(ipqFlush(ipq), kStatusSuccess);
    EXPECT_EQ(received(), a + b + c + a + c + b);
    ASSERT_EQ(send(large), kStatusSuccess);
    ASSERT_EQ(send(a), kStatusSuccess);
    EXPECT_EQ(ipqSendVector(ipq, messages, true), kStatusSuccess);
    EXPECT_TRUE(received(large.size() + 8'400) == large + a + c + b + a);
}

TEST_F(StandingQueue, KeepsAnIdleConnectionAlive) {
    openAndRead();
    live("at59.9 = at60 =k at120 =k a at180 =a <k at240 = at300 =k");
    EXPECT_EQ(ipqWriteStatistics(ipq).messages, 1u);
    EXPECT_EQ(owner.messages.size(), 0u);
}

// Where nothing is read the keep-alive is what finds the connection lost.
TEST_F(StandingQueue, FindsALossWithoutReading) {
    openAndRead();
    ASSERT_EQ(ipqPauseReading(ipq), kStatusSuccess);
    peer.shut();
    live("at60 at120 at180");
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

// A callback that pauses is the last one, though more has arrived.
TEST_F(StandingQueue, PausesWithinTheCallback) {
    openAndRead();
    int batches = 0;
    owner.onBatch = [&](Ipq* self) {
        ++batches;
        EXPECT_EQ(ipqPauseReading(self), kStatusSuccess);
    };
    constexpr size_t kUnits = 40;
    const int handle = socketHandle(ipq->socket), room = 1 << 20;
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    for (size_t i = 0; i < kUnits; ++i)
        sendText(peer.number(), streamUnit(5'000, 'a'));
    EXPECT_TRUE(within(10, [&] {  // more than one read takes
        int waiting = 0;
        return ioctl(handle, FIONREAD, &waiting) == 0 && waiting > 150'000;
    }));
    while (owner.messages.size() < kUnits) {
        batches = 0;
        ASSERT_EQ(ipqResume(ipq), kStatusSuccess);
        while (batches == 0)
            passes();
        passes();
        EXPECT_EQ(batches, 1);
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
    EXPECT_EQ(HeldMessage(message)->length, 100'000u);
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
        EXPECT_TRUE(!isLost || (end.losses.messages == 2 && end.losses.bytes > kLargeBytes / 2));
        passes();
        EXPECT_EQ(owner.closes, 0);
        ipqRelease(std::exchange(ipq, nullptr));
        EXPECT_EQ(owner.closes, 1);
        stand.clock.set(1'000);
    }
}

// Nothing that may have left is to be sent again, and what certainly hasn't is known: the sender
// sends it again, and the rest is lost with what the system held.
TEST_F(StandingQueue, ReportsHowMuchOfAVectorMayHaveLeft) {
    HelloFrame terms;
    ipqHelloInit(&terms);
    storeBe32At(terms.bytes + 24, 10'000'000);
    openAndRead(&terms);
    const HeldMessage longest = messageOf(streamUnit(10'000'000, 'a'));
    const HeldMessage tooLong = messageOf(streamUnit(10'000'001, 'x'));
    uint32_t taken = 77;
    pelmoMsg* const bad[] = {longest.get(), tooLong.get()};
    EXPECT_EQ(ipqSendVector(ipq, bad, false, &taken), kStatusInvalidSize);
    EXPECT_EQ(taken, 0u);

    constexpr size_t kRead = 25'000'000;
    EXPECT_FALSE(ipqSetBlocking(ipq, true));
    std::thread reader([&] {
        EXPECT_EQ(receiveText(peer.number(), kRead).size(), kRead);
        resetPeer();
    });
    const std::vector<pelmoMsg*> six(6, longest.get());
    EXPECT_EQ(ipqSendVector(ipq, six, false, &taken), kStatusInvalidIoSource);
    reader.join();
    EXPECT_TRUE(taken >= 2 && taken < 6) << taken;
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

}  // namespace
