// The direct road of transports that meet at a daemon: what goes straight, whatever becomes of the
// daemon, and what the losses of it look like.

#include <time.h>

#include <atomic>
#include <mutex>
#include <optional>
#include <thread>

#include "lib/pelmo.h"
#include "lib/transport/daemon/specification.h"
#include "tests/support/datagram_wire.h"
#include "tests/support/link_stand.h"
#include "tests/support/test.h"
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
    LinkStand stand;
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

// 0: any port.
OwnHandle bindDatagrams(uint16_t* port) {
    OwnHandle handle(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = kLoopbackHost;
    own.sin_port = htons(*port);
    socklen_t size = sizeof own;
    EXPECT_EQ(bind(handle.number(), reinterpret_cast<sockaddr*>(&own), size), 0);
    EXPECT_EQ(getsockname(handle.number(), reinterpret_cast<sockaddr*>(&own), &size), 0);
    *port = ntohs(own.sin_port);
    return handle;
}

TEST_F(Direct, GetsThePortOrSaysWhyNot) {
    uint16_t port = 0;
    OwnHandle taken = bindDatagrams(&port);
    const std::string service = "7500:" + std::to_string(port) + ":more";
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusPortInUse);
    taken.shut();
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusSuccess);
    EXPECT_EQ(left.traffic().port, port);
    EXPECT_EQ(right.create(*daemon, "7500"), kStatusSuccess);
    EXPECT_EQ(right.traffic().port, 0);
    EXPECT_NE(right.inbox().find(".U002A."), std::string::npos);
    left.end();
    right.end();
    // A name that is too long for a session leaves no port behind.
    daemon->behave([](TestDaemon::Manners& m) { m.gob = std::string(41, 'g'); });
    EXPECT_EQ(left.create(*daemon, service.c_str()), kStatusInitFailed);
    (void)bindDatagrams(&port);
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

// The library closes under transports that send to each other, in one process: nothing hangs.
TEST_F(Direct, EndsWithTheLibrary) {
    meet();
    const std::string inbox = right.inbox();
    right.listen(inbox.c_str());
    std::atomic<bool> isOver = false;
    std::thread sender([&, transport = left.transport] {
        const Message message = messageOn(inbox.c_str(), std::string(2000, 'x').c_str());
        while (!isOver && pelmoTransport_Send(transport, message.get()) == kStatusSuccess) {
        }
    });
    EXPECT_TRUE(soon([&] { return right.traffic().messagesReceived > 1000; }));
    // The peer ends first, and what it hadn't read by then is lost.
    const pelmoStatus status = pelmo_Close();
    EXPECT_TRUE(status == kStatusSuccess || status == kStatusDeliveryFailed) << status;
    isOver = true;
    sender.join();
    left.transport = right.transport = kNoId;
}

}  // namespace
