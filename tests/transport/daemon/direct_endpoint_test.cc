// The direct road of transports that meet at a daemon: what goes straight, whatever becomes of the
// daemon, and what the losses of it look like.

#include <time.h>

#include <mutex>
#include <optional>
#include <thread>

#include "lib/pelmo.h"
#include "lib/transport/daemon/specification.h"
#include "tests/support/datagram_wire.h"
#include "tests/support/link_fixture.h"
#include "tests/support/test_daemon.h"

namespace {

template <typename Condition>
bool soon(Condition condition) {
    for (int look = 0; look < 20'000; ++look) {
        if (condition()) return true;
        (void)poll(nullptr, 0, 1);
    }
    return false;
}

// A network transport with its listeners on a queue that a thread dispatches.
struct Client {
    uint32_t transport = kNoId;
    std::mutex mutex;
    Texts texts;  // guarded by `mutex`

    pelmoStatus create(const TestDaemon& daemon, const char* service) {
        return pelmoTransport_CreateNetwork(&transport, service, nullptr,
                                            daemon.specification().c_str());
    }
    ~Client() { end(); }
    void end() {
        if (transport != kNoId) pelmoTransport_Destroy(std::exchange(transport, kNoId));
    }

    void listen(const char* subject, pelmoEventCallback callback = note) {
        uint32_t event = kNoId;
        EXPECT_EQ(
            pelmoEvent_CreateListener(&event, kDefaultQueueId, callback, transport, subject, this),
            kStatusSuccess);
    }
    std::string inbox() const {
        char text[100];
        EXPECT_EQ(pelmoTransport_CreateInbox(transport, text, sizeof text), kStatusSuccess);
        return text;
    }
    pelmoDirectTraffic traffic() const {
        pelmoDirectTraffic counts = {};
        EXPECT_EQ(pelmoTransport_GetDirectTraffic(transport, &counts), kStatusSuccess);
        return counts;
    }
    bool took(const std::string& text) {
        return soon([&] {
            const std::lock_guard guard(mutex);
            return std::find(texts.begin(), texts.end(), text) != texts.end();
        });
    }

  private:
    static void note(uint32_t, pelmoMsg* message, void* closure) {
        auto* const self = static_cast<Client*>(closure);
        const char* text = nullptr;
        const std::lock_guard guard(self->mutex);
        if (pelmoMsg_ConvertToString(message, &text) == kStatusSuccess) self->texts.push_back(text);
    }
};

struct Direct : testing::Test {
    LinkFixture fixture;
    std::optional<TestDaemon> daemon{std::in_place};
    uint32_t dispatcher = kNoId;
    Client left, right;

    void SetUp() override {
        ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, kDefaultQueueId, -1), kStatusSuccess);
    }
    void meet() {
        ASSERT_EQ(left.create(*daemon, "7500:"), kStatusSuccess);
        ASSERT_EQ(right.create(*daemon, "7500:0"), kStatusSuccess);
    }
};

void answer(uint32_t, pelmoMsg* request, void* closure) {
    const uint32_t transport = static_cast<Client*>(closure)->transport;
    const Message reply = messageOn(nullptr, "answer");
    EXPECT_EQ(pelmoTransport_SendReply(transport, reply.get(), request), kStatusSuccess);
}

TEST_F(Direct, CarriesAnswersStraight) {
    meet();
    right.listen("ASK", answer);
    (void)daemon->await("L ASK");
    char inbox[64];
    std::snprintf(inbox, sizeof inbox, "_INBOX.7F000001.P%04X.GOB.1", left.traffic().port);
    EXPECT_EQ(left.inbox(), inbox);
    const Message request = messageOn("ASK");
    for (uint64_t round = 1; round <= 20; ++round) {
        pelmoMsg* reply = nullptr;
        ASSERT_EQ(pelmoTransport_SendRequest(left.transport, request.get(), &reply, 10),
                  kStatusSuccess);
        EXPECT_EQ(textOf(reply), "answer");
        pelmoMsg_Destroy(reply);
        EXPECT_TRUE(left.traffic().messagesReceived == round &&
                    right.traffic().messagesSent == round);
    }
    for (const std::string& told : daemon->taken())
        EXPECT_EQ(told.find("answer"), std::string::npos) << told;

    // Without the daemon, both ways, and to oneself.
    const std::string leftInbox = left.inbox(), rightInbox = right.inbox();
    left.listen(leftInbox.c_str());
    right.listen(rightInbox.c_str());
    daemon.reset();
    EXPECT_EQ(sendText(left.transport, rightInbox.c_str(), "out"), kStatusSuccess);
    EXPECT_EQ(sendText(right.transport, leftInbox.c_str(), "back"), kStatusSuccess);
    const uint64_t packets = left.traffic().packetsSent;
    EXPECT_TRUE(right.took(R"({text="out"})") && left.took(R"({text="back"})"));
    EXPECT_EQ(sendText(left.transport, leftInbox.c_str(), "own"), kStatusSuccess);
    EXPECT_TRUE(left.took(R"({text="own"})"));
    EXPECT_LE(left.traffic().packetsSent, packets + 2);  // acknowledgements alone
    EXPECT_NE(sendText(left.transport, "ASK"), kStatusSuccess);
}

TEST_F(Direct, GetsThePortOrSaysWhyNot) {
    DatagramWire taken;
    const uint16_t port = taken.port;
    const std::string service = "7500:" + std::to_string(port) + ":more";
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusPortInUse);
    taken.handle.shut();
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusSuccess);
    EXPECT_EQ(left.traffic().port, port);
    EXPECT_EQ(right.create(*daemon, "7500"), kStatusSuccess);
    EXPECT_EQ(right.traffic().port, 0);
    EXPECT_NE(right.inbox().find(".U002A."), std::string::npos);
    left.end();
    right.end();
    EXPECT_EQ(left.create(*daemon, "7500:7500"), kStatusNotPermitted);
    EXPECT_EQ(left.create(*daemon, "7500:nosuch"), kStatusServiceNotFound);
    // A name that is too long for a session leaves no port taken.
    daemon->behave([](TestDaemon::Behaviour& m) { m.gob = std::string(41, 'g'); });
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusInitFailed);
    daemon->behave([](TestDaemon::Behaviour&) {});
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusSuccess);
}

// Takes the place of the roads out of a transport: notes what goes straight and answers it, changes
// what the link answers, and finds the transport's lock free in each call.
struct Roads : NoCopy {
    Texts noted;                          // "to HOST:PORT {FIELDS}", "close", "stop"
    pelmoStatus answer = kStatusSuccess;  // to what goes straight
    pelmoStatus linkAnswer = kStatusSuccess;
    uint32_t linkTakes = 0;           // of a vector that fails
    std::function<void()> meanwhile;  // called once, by what goes straight
    int references = 0;               // of sends, to the endpoint

    Roads() {
        current = this;
        daemonLinkOps.sendVector = [](Transport* transport, std::span<pelmoMsg* const> messages,
                                      uint32_t* taken) {
            *taken = current->linkTakes;
            if (current->linkAnswer != kStatusSuccess) return current->linkAnswer;
            return current->link.sendVector(transport, messages, taken);
        };
        daemonLinkOps.stop = [](Transport* transport, double deadline) {
            current->note("stop");
            return current->link.stop(transport, deadline);
        };
        endpointOps.send = [](ReliableEndpoint*, uint32_t host, uint16_t port,
                              std::span<pelmoMsg* const> messages) {
            char words[40];
            std::snprintf(words, sizeof words, "to %x:%x ", host, unsigned{port});
            current->note(words + shownText(messages[0]));
            if (current->meanwhile) std::exchange(current->meanwhile, nullptr)();
            return current->answer;
        };
        endpointOps.retain = [](ReliableEndpoint* of) {
            ++current->references;
            current->endpoint.retain(of);
        };
        endpointOps.release = [](ReliableEndpoint* of) {
            --current->references;
            current->endpoint.release(of);
        };
        endpointOps.close = [](ReliableEndpoint* of, double deadline) {
            current->note("close");
            return current->endpoint.close(of, deadline);
        };
    }
    ~Roads() {
        daemonLinkOps = link;
        endpointOps = endpoint;
    }
    Texts taken() { return std::exchange(noted, {}); }

  private:
    static inline Roads* current = nullptr;
    const DaemonLinkOps link = daemonLinkOps;
    const EndpointOps endpoint = endpointOps;
    uint32_t calls = 0;

    void note(const std::string& words) {
        expectTransportsFree(0, &calls);
        noted.push_back(words);
    }
};

TEST_F(Direct, GoesStraightToInboxesThatNameAPort) {
    Roads roads;
    ASSERT_EQ(left.create(*daemon, "7500:"), kStatusSuccess);
    (void)daemon->await(3);
    const std::pair<const char*, const char*> straight[] = {
        {"_INBOX.0A000001.P1F40.GOB.1", "to a000001:1f40"},
        {"_INBOX.ffffffff.Pffff.1", "to ffffffff:ffff"},
        {"_INBOX.1.P2", "to 1:2"},
    };
    for (const auto& [inbox, peer] : straight) {
        EXPECT_EQ(sendText(left.transport, inbox, "x"), kStatusSuccess);
        EXPECT_EQ(roads.taken(), Texts{std::string(peer) + R"( {text="x"})"});
    }
    Texts others;
    for (const char* subject :
         {"A.B", "_INBOX.0A000001.U1F40.1", "_INBOX.0A000001.P.1", "_INBOX.0A000001.PX.1",
          "_INBOX.0A000001.P12345.1", "_INBOX.0A0000012.P1.1", "_INBOX.GOB.P1.1", "_INBOX.1",
          "_INBOXES.1.P2"}) {
        EXPECT_EQ(sendText(left.transport, subject, "x"), kStatusSuccess);
        others.push_back(std::string(subject) + R"( {text="x"})");
    }
    EXPECT_EQ(daemon->await(others.back()), others);
    EXPECT_EQ(roads.taken(), Texts{});
    roads.answer = kStatusIoFailed;
    EXPECT_EQ(sendText(left.transport, "_INBOX.1.P2"), kStatusIoFailed);

    // A send that meets the destroy keeps the endpoint beyond its close. The daemon learns of the
    // end of a transport as soon as its link has stopped, so that the endpoint is closed first.
    (void)roads.taken();
    roads.references = 0;
    roads.answer = kStatusSuccess;
    const Texts all = {R"(to 1:2 {text="x"})", "close", "stop"};
    const uint32_t ending = std::exchange(left.transport, kNoId);
    roads.meanwhile = [&] {
        EXPECT_EQ(pelmoTransport_Destroy(ending), kStatusSuccess);
        EXPECT_EQ(roads.references, 1);
    };
    EXPECT_EQ(sendText(ending, "_INBOX.1.P2", "x"), kStatusSuccess);
    EXPECT_EQ(roads.noted, all);
    EXPECT_EQ(roads.references, 0);
}

TEST_F(Direct, SendsVectorsTogetherOrNotAtAll) {
    Roads roads;
    ASSERT_EQ(left.create(*daemon, "7500:"), kStatusSuccess);
    (void)daemon->await(3);
    const std::string much(size_t{64} << 20, 'x');
    const Message a = messageOn("A", "a"), inbox = messageOn("_INBOX.1.P2", "direct"),
                  b = messageOn("B", "b"), reserved = messageOn("_PM.X"),
                  longest = messageOn("C", much.c_str());
    const struct {
        pelmoMsg* last;  // after a, inbox and b; null: none
        pelmoStatus status, answer, linkAnswer;
        uint32_t linkTakes, taken;
    } rows[] = {
        {reserved.get(), kStatusInvalidSubject, kStatusSuccess, kStatusSuccess, 0, 0},
        {longest.get(), kStatusInvalidSize, kStatusSuccess, kStatusSuccess, 0, 0},
        {nullptr, kStatusDeliveryFailed, kStatusDeliveryFailed, kStatusSuccess, 0, 0},
        // What was taken is counted in the order in which it leaves.
        {nullptr, kStatusInvalidIoSource, kStatusSuccess, kStatusInvalidIoSource, 1, 2},
        {nullptr, kStatusSuccess, kStatusSuccess, kStatusSuccess, 0, 3},
    };
    for (const auto& row : rows) {
        (void)roads.taken();
        pelmoMsg* messages[] = {a.get(), inbox.get(), b.get(), row.last};
        roads.answer = row.answer;
        roads.linkAnswer = row.linkAnswer;
        roads.linkTakes = row.linkTakes;
        uint32_t taken = 77;
        EXPECT_EQ(pelmoTransport_SendvTaken(left.transport, messages, row.last != nullptr ? 4 : 3,
                                            &taken),
                  row.status);
        EXPECT_EQ(taken, row.taken);
        EXPECT_EQ(roads.noted.size(), row.last != nullptr ? 0u : 1u);
    }
    EXPECT_EQ(daemon->await(R"(B {text="b"})"), (Texts{R"(A {text="a"})", R"(B {text="b"})"}));
}

// Time goes a hundred times as fast, from before the library opens until it is closed.
timespec fastClock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t fast = (now.tv_sec * 1'000'000'000 + now.tv_nsec) * 100;
    return {.tv_sec = fast / 1'000'000'000, .tv_nsec = fast % 1'000'000'000};
}

struct FastClock : NoCopy {
    FastClock() : former(clockSetMonotonicSource(fastClock)) {}
    ~FastClock() { clockSetMonotonicSource(former); }
    ClockSource former;
};
struct FastDirect : FastClock, Direct {};

void tick(uint32_t, pelmoMsg*, void*) {}

std::string lossText(const char* side, const char* words, uint32_t bytes) {
    return std::string(R"({ADV_CLASS="ERROR" ADV_SOURCE="SYSTEM" ADV_NAME="DATALOSS.)") + side +
           R"(BOUND.PTP" ADV_DESC="dataloss: remote daemon did not )" + words +
           R"(" host="127.0.0.1" bytes_dropped=)" + std::to_string(bytes) + "}";
}

TEST_F(FastDirect, TellsLosses) {
    uint32_t ticks = kNoId;  // by which the timer thread sees the clock run
    EXPECT_EQ(pelmoEvent_CreateTimer(&ticks, kTimerQueueId, tick, 0.1, nullptr), kStatusSuccess);
    meet();
    left.listen("_PM.ERROR.SYSTEM.DATALOSS.>");
    DatagramWire wire;
    wire.other.sin_port = htons(left.traffic().port);
    wire.write({7, 0, 1, 0, 2});
    const uint32_t id = wire.read().source;
    wire.write({7, id, 2, 2, 0}, Bytes(20, 1));  // not as long as the message claims
    EXPECT_TRUE(left.took(lossText("IN", "satisfy our retransmission requests", 20)));

    // To a port that is gone.
    const std::string gone = right.inbox();
    right.end();
    EXPECT_EQ(sendText(left.transport, gone.c_str(), "x"), kStatusSuccess);
    EXPECT_TRUE(left.took(lossText("OUT", "acknowledge our transmission", 1432)));
}

}  // namespace
