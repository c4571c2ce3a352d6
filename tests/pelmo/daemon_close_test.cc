// Ends of network transports, and of the library with them, in whatever state they are: at once, or
// within the time of a graceful close, and with all sent that the daemon takes.

#include "lib/transport/ipq/ipq.h"
#include "tests/pelmo/daemon_fixture.h"

namespace {

// Well below what a wait for its own time-out would take, well above what a busy machine does.
constexpr double kAtOnceSeconds = 3.0;
constexpr double kGracefulSeconds = kGracefulCloseSeconds + 3.0;

double secondsOf(const std::function<void()>& act) {
    const double start = clockSteadySeconds();
    act();
    return clockSteadySeconds() - start;
}

// What ends it: a destroy or the library's close, called by the test or in a callback.
struct Ender {
    bool closes, inCallback;
};
constexpr Ender kEnders[] = {{false, false}, {false, true}, {true, false}, {true, true}};

struct DaemonCloses : DaemonFixture {
    // Runs it on the thread of the dispatcher.
    void inCallback(const std::function<void()>& act) const {
        ServedListener listener(kLocal, "ACT");
        listener.onMessage = [&](pelmoMsg*) { act(); };
        ASSERT_EQ(::sendText(kLocal, "ACT"), kStatusSuccess);
        EXPECT_TRUE(listener.await(1));
    }

    // Seconds until it has ended.
    double end(Ender ender, pelmoStatus status = kStatusSuccess) {
        double seconds = 0;
        const auto act = [&] {
            seconds = secondsOf([&] {
                EXPECT_EQ(ender.closes ? pelmo_Close() : pelmoTransport_Destroy(transport), status);
            });
        };
        ender.inCallback ? inCallback(act) : act();
        return seconds;
    }

    // For the next row, which counts from there.
    void reopen(Ender ender, const Leftovers& before) {
        if (ender.closes) open();
        EXPECT_EQ(leftoversOnceThey(before), before);
    }
};

// A transport that is being made, on a thread of its own, when the library closes: within the
// greeting, the frames or the reply, or without any answer at all, since the daemon's system has no
// room for another connection.
TEST_F(DaemonCloses, OfTheLibraryEndAConnectUnderWay) {
    const LoopbackListener full(0);
    sockaddr_in target = {};
    target.sin_family = AF_INET;
    target.sin_port = full.port;
    target.sin_addr.s_addr = kLoopbackHost;
    std::vector<OwnHandle> fill(4);
    for (OwnHandle& one : fill) {
        one = OwnHandle(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        (void)connect(one.number(), reinterpret_cast<sockaddr*>(&target), sizeof(target));
    }
    const std::string nameOfFull = "127.0.0.1:" + std::to_string(ntohs(full.port));
    const DaemonScript answered[] = {
        {}, greet() + takeAnswer(), goodHandshake() + takeMessage(), hangUp()};
    for (const Ender ender : {kEnders[2], kEnders[3]}) {
        for (const DaemonScript& script : answered) {
            const bool isFull = &script == &answered[3];
            SCOPED_TRACE(&script - answered);
            MisbehavingDaemon daemon({script + gate() + silence()});
            daemon.openGate();
            const Leftovers before = leftovers();
            const std::string name = isFull ? nameOfFull : daemon.name();
            std::thread making([&] {
                EXPECT_NE(pelmoTransport_CreateNetwork(&transport, "7500", nullptr, name.c_str()),
                          kStatusSuccess);
            });
            EXPECT_TRUE(isFull ? within(10, [&] { return leftovers() != before; })
                               : daemon.awaitGates(1));
            EXPECT_LT(secondsOf([&] {
                          EXPECT_LT(end(ender), kAtOnceSeconds);
                          making.join();
                      }),
                      kAtOnceSeconds);
            reopen(ender, before);
        }
    }
    EXPECT_TRUE(noMemoryIsLost());
}

// Each ender, with what waits for the daemon, and what that makes of it. One that breaks off
// without having read all isn't a good end, however little it was.
TEST_F(DaemonCloses, SendWhatTheDaemonReads) {
    constexpr size_t kParts = 128;
    enum Waits { kNothing, kOneByte, kMegabytes, kASender };
    const struct {
        Waits waits;
        bool opensGate;
        DaemonScript script;
        pelmoStatus status;
        double seconds;
    } rows[] = {
        {kNothing, true, gate() + serve(), kStatusSuccess, kAtOnceSeconds},
        {kOneByte, true, gate() + pauseFor(200) + reset(), kStatusDeliveryFailed, kAtOnceSeconds},
        {kMegabytes, true, gate() + serve(), kStatusSuccess, kGracefulSeconds},
        {kASender, false, gate() + hangUp(), kStatusDeliveryFailed, kGracefulSeconds},
    };
    for (const auto& row : rows) {
        for (const Ender ender : kEnders) {
            if (row.waits == kASender && ender.inCallback) continue;  // each takes seconds
            SCOPED_TRACE(testing::Message() << row.waits << ender.closes << ender.inCallback);
            MisbehavingDaemon daemon({goodSession() + row.script});
            const Leftovers before = leftovers();
            ASSERT_EQ(create(daemon), kStatusSuccess);
            EXPECT_TRUE(daemon.awaitGates(1));
            const std::string part(row.waits == kMegabytes ? kPartBytes : 1, 'x');
            const size_t parts = row.waits == kMegabytes ? kParts : row.waits == kOneByte ? 1 : 0;
            for (size_t i = 0; i < parts; ++i)
                ASSERT_EQ(sendText("A.B", part), kStatusSuccess);
            std::thread sending;
            if (row.waits == kASender) sending = sendUntilItFails();
            if (row.opensGate) daemon.openGate();
            EXPECT_LT(end(ender, row.status), row.seconds);
            if (sending.joinable()) sending.join();
            if (!row.opensGate) daemon.openGate();
            size_t large = 0;
            for (const Bytes& message : daemon.messages())
                large += message.size() > kPartBytes ? 1 : 0;
            EXPECT_EQ(large, row.waits == kMegabytes ? kParts : 0);
            reopen(ender, before);
        }
    }
    EXPECT_TRUE(noMemoryIsLost());
}

// What waits until then is lost with an end that its caller bounds, and with a break, but for what
// the sender that meets it is to send again.
TEST_F(DaemonCloses, CountWhatIsLost) {
    for (const bool breaks : {false, true}) {
        MisbehavingDaemon daemon({goodSession() + gate() + reset(), goodSession() + serve()});
        const Leftovers left = leftovers();
        ASSERT_EQ(create(daemon), kStatusSuccess);
        ServedListener advisories(transport, kDisconnected);
        std::thread sending = sendUntilItFails();
        pelmoUnsent before = {}, after = {};
        EXPECT_EQ(pelmoTransport_GetUnsent(transport, &before), kStatusSuccess);
        EXPECT_GT(before.waitingBytes, kMostWaitingBytes);
        EXPECT_GT(before.waitingMessages, kMostWaitingBytes / kPartBytes / 2);
        EXPECT_EQ(before.lostMessages, 0u);
        if (!breaks) {
            testing::internal::CaptureStderr();
            EXPECT_LT(secondsOf([&] {
                          EXPECT_EQ(pelmoTransport_DestroyWithin(transport, 0),
                                    kStatusDeliveryFailed);
                      }),
                      kAtOnceSeconds);
            EXPECT_NE(testing::internal::GetCapturedStderr().find(
                          ": the end of the connection to the daemon left "),
                      std::string::npos);
        }
        daemon.openGate();
        EXPECT_TRUE(!breaks || advisories.await(1));
        sending.join();  // the break and the end both end its wait
        if (breaks) {
            EXPECT_EQ(pelmoTransport_GetUnsent(transport, &after), kStatusSuccess);
            EXPECT_EQ(after.lostMessages, before.waitingMessages);
            EXPECT_EQ(after.lostBytes, before.waitingBytes);
            EXPECT_TRUE(daemon.awaitConnections(2));
            EXPECT_EQ(pelmoTransport_Destroy(transport), kStatusSuccess);
        }
        advisories.end();
        EXPECT_EQ(leftoversOnceThey(left), left);
    }
    EXPECT_TRUE(noMemoryIsLost());
}

// After a break: the next connect waits for its time, or is under way and not answered.
TEST_F(DaemonCloses, OfABrokenTransportTakeNoTime) {
    for (const bool refuses : {true, false}) {
        for (const Ender ender : kEnders) {
            SCOPED_TRACE(testing::Message() << ender.closes << ender.inCallback);
            MisbehavingDaemon daemon({goodSession() + gate() + hangUp(), gate() + silence()});
            const Leftovers before = leftovers();
            ASSERT_EQ(create(daemon), kStatusSuccess);
            ServedListener advisories(transport, kDisconnected);
            if (refuses) daemon.stopListening();
            daemon.openGate();
            daemon.openGate();
            EXPECT_TRUE(advisories.await(1));
            EXPECT_TRUE(refuses || daemon.awaitGates(2));
            EXPECT_LT(end(ender), kAtOnceSeconds);
            advisories.end();
            reopen(ender, before);
        }
    }
    EXPECT_TRUE(noMemoryIsLost());
}

}  // namespace
