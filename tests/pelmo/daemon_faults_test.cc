// Network transports against daemons that do all things wrong.

#include "tests/pelmo/daemon_fixture.h"
#include "tests/support/packet_builder.h"

namespace {

constexpr uint32_t kMagic = 0x9955eeaa;

Bytes head(uint32_t size, uint32_t magic = kMagic) {
    return be32(size) + be32(magic);
}

Bytes firstBytes(const Bytes& bytes, size_t count) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
}

Bytes lastBytes(const Bytes& bytes, size_t from) {
    return Bytes(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.end());
}

struct DaemonFaults : DaemonFixture {};

// The most that the process has ever had.
size_t peakAddressSpaceBytes() {
    std::ifstream file("/proc/self/status");
    size_t kilobytes = 0;
    for (std::string word; word != "VmPeak:" && file >> word;) {
    }
    EXPECT_TRUE(file >> kilobytes);
    return kilobytes * 1024;
}

struct OpeningFault {
    const char* name;
    DaemonScript script;
    pelmoStatus expected;
    bool runsOut = false;  // it takes all the time that an answer may take
};

std::vector<OpeningFault> openingFaults() {
    constexpr pelmoStatus kNoDaemon = kStatusDaemonNotConnected, kFailed = kStatusInitFailed;
    const DaemonScript greeted = greet() + takeAnswer();
    const DaemonScript started = goodHandshake() + takeMessage();
    const DaemonScript served = takeMessage() + serve();
    const DaemonScript startedAndServed = takeMessage() + reply() + served;
    const Bytes greeting(12);
    const auto endsWithFrame = [&](const Frame& frame) { return greeted + sendFrame(frame); };
    const auto endsWithReply = [&](const Reply& wrong) { return started + reply(wrong) + serve(); };
    DaemonScript endless = greeted;
    for (int i = 0; i < 10'000; ++i)
        endless = std::move(endless) + sendFrame({}) + takeFrame();
    return {
        {"closes at once", hangUp(), kNoDaemon},
        {"resets at once", reset(), kNoDaemon},
        {"greets short", sendBytes(firstBytes(greeting, 11)), kNoDaemon},
        {"doesn't greet", silence(), kNoDaemon, true},
        {"greets by halves", sendBytes(firstBytes(greeting, 4)) + silence(), kNoDaemon, true},
        {"greets late", pauseFor(30) + goodSession() + serve(), kStatusSuccess},
        {"greets with a word", greet({.first = 1}) + silence(), kNoDaemon},
        {"greets with version 2", greet({.version = 2}) + silence(), kStatusWrongVersion},
        {"greets with version 3",
         greet({.version = 3}) + takeAnswer() + sendFrame({.type = 1}) + startedAndServed,
         kStatusSuccess},
        {"greets with version 5", greet({.version = 5}) + silence(), kStatusWrongVersion},
        {"greets with all bits", greet({UINT32_MAX, UINT32_MAX}) + silence(), kNoDaemon},

        {"closes for a frame", greeted + hangUp(), kFailed},
        {"resets for a frame", greeted + reset(), kFailed},
        {"sends no frame", greeted + silence(), kFailed, true},
        {"sends a short frame", greeted + sendBytes(firstBytes(frameBytes({}), 63)), kFailed},
        {"refuses", endsWithFrame({.type = 0}), kFailed},
        {"sends a frame of no type", endsWithFrame({.type = 4}), kFailed},
        {"offers another version", endsWithFrame({.version = 3}) + silence(), kFailed},
        {"offers another format", endsWithFrame({.format = 2}) + silence(), kFailed},
        {"counters",
         greeted + sendFrame({.type = 3}) + takeFrame() + sendFrame({.type = 1}) + startedAndServed,
         kStatusSuccess},
        {"offers for ever", endless, kFailed, true},
        {"agrees on version 1", endsWithFrame({.type = 1, .version = 1}), kStatusInvalidTransport},
        {"agrees on a small limit", endsWithFrame({.type = 1, .limitA = 0x3ffffff}),
         kStatusInvalidTransport},
        {"agrees on a large limit", endsWithFrame({.type = 1, .limitB = 0x4000001}),
         kStatusInvalidTransport},
        {"agrees on no limits",
         greeted + sendFrame({.type = 1, .limitA = 0, .limitB = 0}) + startedAndServed,
         kStatusSuccess},

        {"closes for a reply", started + hangUp(), kNoDaemon},
        {"resets for a reply", started + reset(), kNoDaemon},
        {"never replies", started + silence(), kNoDaemon, true},
        {"keeps alive and never replies", started + sendBytes(head(8)) + silence(), kNoDaemon,
         true},
        {"closes in order for a reply", started + sendBytes(Bytes(8)) + serve(), kNoDaemon},
        {"replies with bad magic", started + sendBytes(head(20, kMagic + 1)) + silence(),
         kNoDaemon},
        {"replies with a size of 4", started + sendBytes(head(4)) + silence(), kNoDaemon},
        {"replies by halves", started + sendBytes(firstBytes(replyBytes(), 30)) + hangUp(),
         kNoDaemon},
        {"replies with another kind", endsWithReply({.mtype = "D"}), kFailed},
        {"replies without a kind", endsWithReply({.without = "mtype"}), kFailed},
        {"replies without data", endsWithReply({.without = "data"}), kFailed},
        {"replies without its address", endsWithReply({.without = "ipaddr"}),
         kStatusNetworkNotFound},
        {"replies without its port", endsWithReply({.without = "ipport"}), kStatusServiceNotFound},
        {"replies with an error", endsWithReply({.error = kStatusNotPermitted}),
         kStatusNotPermitted},
        {"replies with an error of its own", endsWithReply({.error = 4711}), 4711},
        {"replies with no error", started + reply({.error = 0}) + served, kStatusSuccess},
        {"replies after keep-alives",
         started + sendBytes(head(8)) + sendBytes(head(8)) + reply() + served, kStatusSuccess},
        {"replies byte by byte", started + sendOneByOne(replyBytes()) + served, kStatusSuccess},
        {"replies twice", started + reply() + reply() + served, kStatusSuccess},
    };
}

// Whatever happened, nothing is left of it, and the next connection goes well.
TEST_F(DaemonFaults, OfAnOpeningHaveTheirStatus) {
    for (const OpeningFault& fault : openingFaults()) {
        SCOPED_TRACE(fault.name);
        MisbehavingDaemon daemon({fault.script, goodSession() + serve()});
        const Leftovers before = leftovers();
        const auto tryWith = [&](double seconds) {
            const double former = std::exchange(linkEnvironment.answerSeconds, seconds);
            const pelmoStatus status = create(daemon);
            linkEnvironment.answerSeconds = former;
            if (status == kStatusSuccess) pelmoTransport_Destroy(transport);
            EXPECT_EQ(leftoversOnceThey(before), before);
            return status;
        };
        EXPECT_EQ(tryWith(fault.runsOut ? 0.05 : 10), fault.expected);
        EXPECT_EQ(tryWith(10), kStatusSuccess);
        EXPECT_TRUE(noMemoryIsLost());
    }
}

// Whether the connection is up by then is a race; a transport that was made has its break
// repaired.
TEST_F(DaemonFaults, AfterAReplyBreakWhatMayBeUp) {
    constexpr int kRounds = 10;
    const DaemonScript replied = goodHandshake() + takeMessage() + reply();
    const DaemonScript scripts[] = {replied + hangUp(), replied + reset(), goodSession() + hangUp(),
                                    goodSession() + reset(), goodSession() + sendBytes(head(4))};
    for (int round = 0; round < kRounds * static_cast<int>(std::size(scripts)); ++round) {
        MisbehavingDaemon daemon(
            {scripts[static_cast<size_t>(round) % std::size(scripts)], goodSession() + serve()});
        const Leftovers before = leftovers();
        const pelmoStatus status = create(daemon);
        EXPECT_TRUE(status == kStatusSuccess || status == kStatusDaemonNotConnected) << status;
        EXPECT_TRUE(status == kStatusSuccess || create(daemon) == kStatusSuccess);
        EXPECT_TRUE(daemon.awaitConnections(2));
        EXPECT_EQ(pelmoTransport_Destroy(transport), kStatusSuccess);
        EXPECT_EQ(leftoversOnceThey(before), before);
    }
    EXPECT_TRUE(noMemoryIsLost());
}

struct RunningFault {
    const char* name;
    DaemonScript script;
    bool breaks;
    const char* line;  // in the log, "" for none
};

std::vector<RunningFault> runningFaults() {
    const Bytes message = messageBytes("A.B", "text");
    const Bytes rubbish = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    Bytes flood;
    for (size_t i = 0; i < 50'000; ++i)
        flood.insert(flood.end(), message.begin(), message.end());
    const char* const badMagic = "bad magic from 127.0.0.1:";
    const char* const badSize = "message with invalid size from 127.0.0.1:";
    std::vector<RunningFault> faults = {
        {"closes", hangUp(), true, ""},
        {"resets", reset(), true, ""},
        {"sends bad magic", sendBytes(rubbish) + silence(), true, badMagic},
        {"sends a word and no magic", sendBytes(head(7, 0)) + silence(), true, badMagic},
        {"sends a close notice", sendBytes(Bytes(8)) + serve(), true, ""},
        {"sends a close notice within a message",
         sendBytes(firstBytes(message, 20)) + sendBytes(Bytes(message.size() - 20)), false, ""},
        {"sends all at once", sendBytes(flood), false, ""},
        {"keeps alive", sendBytes(head(8)) + sendBytes(head(8)), false, ""},
        {"sends a message of one byte", sendBytes(head(9)) + sendBytes({0xff}), false, ""},
        {"sends a message of rubbish", sendBytes(head(8 + 12)) + sendBytes(rubbish), false, ""},
        {"stops within a message", sendBytes(firstBytes(message, message.size() - 1)) + hangUp(),
         true, ""},
        {"stops within a head", sendBytes(firstBytes(message, 3)) + hangUp(), true, ""},
        {"takes its time within a message",
         sendBytes(firstBytes(message, 20)) + pauseFor(20) + sendBytes(lastBytes(message, 20)),
         false, ""},
        {"claims four gigabytes", sendBytes(head(UINT32_MAX)) + sendBytes(rubbish) + silence(),
         true, badSize},
        {"claims more than was agreed", sendBytes(head(0x4000001)) + silence(), true, badSize},
        {"replies again", reply() + reply({.error = kStatusNotPermitted}), false, ""},
    };
    for (uint32_t size = 0; size < 8; ++size)
        faults.push_back({"sends a short size", sendBytes(head(size)) + silence(), true, badSize});
    return faults;
}

// A break is reported once and repaired; what isn't one does no harm, and what follows it arrives.
TEST_F(DaemonFaults, OfAStreamBreakItOrDoNoHarm) {
    for (const RunningFault& fault : runningFaults()) {
        SCOPED_TRACE(fault.name);
        MisbehavingDaemon daemon({goodSession() + gate() + fault.script +
                                      sendBytes(messageBytes("A.NEXT", "text")) + serve(),
                                  goodSession() + serve()});
        const Leftovers before = leftovers();
        ASSERT_EQ(create(daemon), kStatusSuccess);
        ServedListener advisories(transport, kDisconnected);
        ServedListener next(transport, "A.NEXT");
        ASSERT_TRUE(daemon.awaitGates(1));
        testing::internal::CaptureStderr();
        daemon.openGate();
        if (fault.breaks) {
            EXPECT_TRUE(daemon.awaitConnections(2));
            EXPECT_TRUE(advisories.await(1));
        } else {
            EXPECT_TRUE(next.await(1));
        }
        // Sent until it gets through: a message meets no connection while one is being made.
        while (sendText("A.B", "text") == kStatusDaemonNotConnected)
            (void)poll(nullptr, 0, 1);
        EXPECT_EQ(pelmoTransport_Destroy(transport), kStatusSuccess);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find(fault.line), std::string::npos) << log;
        EXPECT_EQ(advisories.count, fault.breaks ? 1u : 0u);
        advisories.end();
        next.end();
        EXPECT_EQ(leftoversOnceThey(before), before);
        EXPECT_TRUE(noMemoryIsLost());
    }
}

// Memory comes with the bytes, not with the number that announces them.
TEST_F(DaemonFaults, OfASizeCostNoMemory) {
    MisbehavingDaemon daemon({goodSession() + gate() + sendBytes(head(0x4000000)) +
                              sendBytes(Bytes(100'000)) + gate() + hangUp()});
    ASSERT_EQ(create(daemon), kStatusSuccess);
    ASSERT_TRUE(daemon.awaitGates(1));
    ServedListener advisories(transport, kDisconnected);
    const size_t before = peakAddressSpaceBytes();
    daemon.openGate();
    daemon.openGate();
    EXPECT_TRUE(advisories.await(1));  // all bytes have been read then
    EXPECT_LT(peakAddressSpaceBytes(), before + (32u << 20));
    EXPECT_EQ(pelmoTransport_Destroy(transport), kStatusSuccess);
}

}  // namespace
