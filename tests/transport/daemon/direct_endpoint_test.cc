// The direct road of transports that meet at a daemon: what goes straight, whatever becomes of the
// daemon, and how losses on it are reported.

#include <time.h>

#include "lib/transport/daemon/specification.h"
#include "tests/support/link_fixture.h"
#include "tests/support/loopback_peer.h"

namespace {

struct Direct : Link {
    uint32_t right = kNoId;  // beside `id`, the left

    void TearDown() override {
        end(&right);
        end(&id);
    }
    static void end(uint32_t* transport) {
        if (*transport != kNoId) pelmoTransport_Destroy(std::exchange(*transport, kNoId));
    }
    void meet() {
        ASSERT_EQ(create("7500:"), kStatusSuccess);
        right = std::exchange(id, kNoId);
        ASSERT_EQ(create("7500:0"), kStatusSuccess);
        (void)daemon.await(6);
    }
    static std::string inboxOf(uint32_t transport) {
        char text[100];
        EXPECT_EQ(pelmoTransport_CreateInbox(transport, text, sizeof text), kStatusSuccess);
        return text;
    }
    static pelmoDirectTraffic trafficOf(uint32_t transport) {
        pelmoDirectTraffic counts = {};
        EXPECT_EQ(pelmoTransport_GetDirectTraffic(transport, &counts), kStatusSuccess);
        return counts;
    }
};

TEST_F(Direct, CarriesAnswersStraight) {
    meet();
    uint32_t dispatcher = kNoId;
    ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, kDefaultQueueId, -1), kStatusSuccess);
    TestListener server;
    server.onMessage = [&](pelmoMsg* request) {
        const Message reply = messageOn(nullptr, "answer");
        EXPECT_EQ(pelmoTransport_SendReply(right, reply.get(), request), kStatusSuccess);
    };
    ASSERT_EQ(server.listen(kDefaultQueueId, "ASK", right), kStatusSuccess);
    (void)daemon.await("L ASK");
    const Message request = messageOn("ASK");
    for (uint64_t round = 1; round <= 20; ++round) {
        pelmoMsg* reply = nullptr;
        ASSERT_EQ(pelmoTransport_SendRequest(id, request.get(), &reply, 10), kStatusSuccess);
        EXPECT_EQ(textOf(Message(reply).get()), "answer");
        EXPECT_TRUE(trafficOf(id).messagesReceived == round &&
                    trafficOf(right).messagesSent == round);
    }
    for (const std::string& text : daemon.taken())
        EXPECT_EQ(text.find("answer"), std::string::npos) << text;
    server.end();
    pelmoDispatcher_Destroy(dispatcher);

    // Without the daemon, both ways, and to oneself.
    const std::string leftInbox = inboxOf(id), rightInbox = inboxOf(right);
    const TestListener there(queue, rightInbox.c_str(), right);
    const TestListener here(queue, leftInbox.c_str(), id);
    daemon.breakConnections();
    EXPECT_TRUE(within(30, [&] { return fixture.timers() == 2; }));
    EXPECT_EQ(sendText(id, rightInbox.c_str(), "out"), kStatusSuccess);
    EXPECT_EQ(sendText(right, leftInbox.c_str(), "back"), kStatusSuccess);
    const uint64_t packets = trafficOf(id).packetsSent;
    dispatchUntil(there, 1);
    dispatchUntil(here, 1);
    EXPECT_EQ(sendText(id, leftInbox.c_str(), "own"), kStatusSuccess);
    dispatchUntil(here, 2);
    EXPECT_TRUE(there.texts == Texts{"out"} && here.texts == (Texts{"back", "own"}));
    EXPECT_LE(trafficOf(id).packetsSent, packets + 2);  // acknowledgements alone
    EXPECT_EQ(sendText(id, "ASK"), kStatusDaemonNotConnected);
}

TEST_F(Direct, GetsThePortOrSaysWhyNot) {
    DatagramWire taken;
    const std::string service = "7500:" + std::to_string(taken.port) + ":more";
    EXPECT_EQ(create(service.c_str()), kStatusPortInUse);
    taken.handle.shut();
    EXPECT_EQ(create(service.c_str()), kStatusSuccess);
    EXPECT_EQ(trafficOf(id).port, taken.port);
    char inbox[64];
    std::snprintf(inbox, sizeof inbox, "_INBOX.7F000001.P%04X.GOB.1", taken.port);
    EXPECT_EQ(inboxOf(id), inbox);
    end(&id);
    EXPECT_EQ(create("7500"), kStatusSuccess);
    EXPECT_EQ(trafficOf(id).port, 0);
    EXPECT_NE(inboxOf(id).find(".U002A."), std::string::npos);
    end(&id);
    EXPECT_EQ(create("7500:7500"), kStatusNotPermitted);
    EXPECT_EQ(create("7500:nosuch"), kStatusServiceNotFound);
    // A name that is too long for a session leaves no port taken.
    daemon.behave([](Behaviour& b) { b.gob = std::string(41, 'g'); });
    EXPECT_EQ(create(service.c_str()), kStatusInitFailed);
    daemon.behave([](Behaviour&) {});
    EXPECT_EQ(create(service.c_str()), kStatusSuccess);
}

// Takes the place of the roads out of a transport: notes what goes straight and answers it, changes
// what the link answers, and finds the transport's lock free in each call.
struct Roads : NoCopy {
    Texts noted;                          // "to HOST:PORT {FIELDS}"
    pelmoStatus answer = kStatusSuccess;  // to what goes straight
    pelmoStatus linkAnswer = kStatusSuccess;
    uint32_t linkTakes = 0;           // of a vector that fails
    std::function<void()> meanwhile;  // called once, by what goes straight
    int releases = 0;                 // of the endpoint

    Roads() {
        current = this;
        daemonLinkOps.sendVector = [](Transport* transport, std::span<pelmoMsg* const> messages,
                                      uint32_t* taken) {
            *taken = current->linkTakes;
            if (current->linkAnswer != kStatusSuccess) return current->linkAnswer;
            return current->link.sendVector(transport, messages, taken);
        };
        endpointOps.send = [](ReliableEndpoint*, uint32_t host, uint16_t port,
                              std::span<pelmoMsg* const> messages) {
            char words[40];
            std::snprintf(words, sizeof words, "to %x:%x ", host, unsigned{port});
            uint32_t calls = 0;
            expectTransportsFree(0, &calls);
            current->noted.push_back(words + shownText(messages[0]));
            if (current->meanwhile) std::exchange(current->meanwhile, nullptr)();
            return current->answer;
        };
        endpointOps.release = [](ReliableEndpoint* of) {
            ++current->releases;
            current->endpoint.release(of);
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
};

TEST_F(Direct, GoesStraightToInboxesThatNameAPort) {
    Roads roads;
    ASSERT_EQ(create("7500:"), kStatusSuccess);
    (void)daemon.await(3);
    for (const auto& [inbox, peer] : {std::pair{"_INBOX.0A000001.P1F40.GOB.1", "to a000001:1f40"},
                                      {"_INBOX.ffffffff.Pffff.1", "to ffffffff:ffff"},
                                      {"_INBOX.1.P2", "to 1:2"}}) {
        EXPECT_EQ(sendText(id, inbox, "x"), kStatusSuccess);
        EXPECT_EQ(roads.taken(), Texts{std::string(peer) + R"( {text="x"})"});
    }
    Texts others;
    for (const char* subject :
         {"A.B", "_INBOX.0A000001.U1F40.1", "_INBOX.0A000001.P.1", "_INBOX.0A000001.PX.1",
          "_INBOX.0A000001.P12345.1", "_INBOX.0A0000012.P1.1", "_INBOX.GOB.P1.1", "_INBOX.1",
          "_INBOXES.1.P2"}) {
        EXPECT_EQ(sendText(id, subject, "x"), kStatusSuccess);
        others.push_back(textMessage(subject, "x"));
    }
    EXPECT_EQ(daemon.await(others.back()), others);
    EXPECT_EQ(roads.taken(), Texts{});
    roads.answer = kStatusIoFailed;
    EXPECT_EQ(sendText(id, "_INBOX.1.P2"), kStatusIoFailed);

    // A send that meets the destroy keeps the endpoint.
    roads.releases = 0;
    roads.answer = kStatusSuccess;
    const uint32_t ending = std::exchange(id, kNoId);
    roads.meanwhile = [&] {
        EXPECT_EQ(pelmoTransport_Destroy(ending), kStatusSuccess);
        EXPECT_EQ(roads.releases, 1);
    };
    EXPECT_EQ(sendText(ending, "_INBOX.1.P2", "x"), kStatusSuccess);
    EXPECT_EQ(roads.releases, 2);
}

TEST_F(Direct, SendsVectorsTogetherOrNotAtAll) {
    Roads roads;
    ASSERT_EQ(create("7500:"), kStatusSuccess);
    (void)daemon.await(3);
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
        EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, row.last != nullptr ? 4 : 3, &taken),
                  row.status);
        EXPECT_EQ(taken, row.taken);
        EXPECT_EQ(roads.noted.size(), row.last != nullptr ? 0u : 1u);
    }
    EXPECT_EQ(daemon.await(2), (Texts{textMessage("A", "a"), textMessage("B", "b")}));
}

// Time goes a hundred times as fast, from before the library opens until it is closed.
timespec fastClock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t fast = (now.tv_sec * 1'000'000'000 + now.tv_nsec) * 100;
    return {.tv_sec = fast / 1'000'000'000, .tv_nsec = fast % 1'000'000'000};
}

struct FastDirect : MonotonicClock, Direct {
    FastDirect() : MonotonicClock(fastClock) {}
};

TEST_F(FastDirect, ReportsLosses) {
    uint32_t ticks = kNoId;  // by which the timer thread sees the clock run
    const auto tick = [](uint32_t, pelmoMsg*, void*) {};
    EXPECT_EQ(pelmoEvent_CreateTimer(&ticks, kTimerQueueId, tick, 0.1, nullptr), kStatusSuccess);
    meet();
    TestListener losses(queue, "_PM.ERROR.SYSTEM.DATALOSS.>", id);
    losses.onMessage = [&](pelmoMsg* message) { losses.texts.back() = shownText(message); };
    const auto awaitLoss = [&](const char* side, const char* words, uint32_t bytes) {
        EXPECT_TRUE(within(20, [&] {
            (void)pelmoQueue_TimedDispatch(queue, 0);
            return !losses.texts.empty();
        }));
        EXPECT_EQ(
            std::exchange(losses.texts, {}),
            Texts{std::string(R"({ADV_CLASS="ERROR" ADV_SOURCE="SYSTEM" ADV_NAME="DATALOSS.)") +
                  side + R"(BOUND.PTP" ADV_DESC="dataloss: remote daemon did not )" + words +
                  R"(" host="127.0.0.1" bytes_dropped=)" + std::to_string(bytes) + "}"});
    };
    DatagramWire wire;
    wire.other.sin_port = htons(trafficOf(id).port);
    wire.write({7, 0, 1, 0, 2});
    const uint32_t source = wire.read().source;
    wire.write({7, source, 2, 2, 0}, Bytes(20, 1));  // not as long as the message claims
    awaitLoss("IN", "satisfy our retransmission requests", 20);

    // To a port that is gone.
    const std::string gone = inboxOf(right);
    end(&right);
    EXPECT_EQ(sendText(id, gone.c_str(), "x"), kStatusSuccess);
    awaitLoss("OUT", "acknowledge our transmission", 1432);
}

}  // namespace
