// Network transports over a daemon: sessions, what goes out and comes in, breaks and repairs.

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <latch>
#include <list>
#include <mutex>
#include <random>

#include "lib/containers/sublist.h"
#include "lib/transport/daemon/reconnect.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/link_stand.h"
#include "tests/support/test.h"
#include "tests/support/test_daemon.h"

namespace {

const std::string kSession = "7F000001.U002A.GOB";
const std::string kOwnInboxes = "L _INBOX." + kSession + ".>";
const Texts kFirstWords = {"start  rc=true}", "start " + kSession + " rc=true}", kOwnInboxes};
const Texts kNextWords = {kFirstWords[1], kFirstWords[1], kOwnInboxes};

std::string textMessage(const std::string& subject, const std::string& text) {
    return subject + " {text=\"" + text + "\"}";
}

using Manners = TestDaemon::Manners;

struct Link : testing::Test {
    LinkStand stand;
    TestDaemon daemon;
    uint32_t queue = 0;
    uint32_t id = kNoId;

    void SetUp() override { ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess); }
    void TearDown() override {
        if (id != kNoId) {
            EXPECT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
        }
        EXPECT_EQ(stand.timers(), 0u);
    }
    pelmoStatus create(const char* service = nullptr, const char* prefix = "") {
        return pelmoTransport_CreateNetwork(&id, service, nullptr,
                                            (prefix + daemon.specification()).c_str());
    }
    void connect() {
        ASSERT_EQ(create(), kStatusSuccess);
        EXPECT_EQ(daemon.await(3), kFirstWords);
    }
    void breakAndRepair() {
        daemon.breakConnections();
        stand.fire(stand.awaitTimer());
    }
    void dispatchUntil(const TestListener& listener, size_t count) const {
        while (listener.texts.size() < count) {
            ASSERT_EQ(pelmoQueue_TimedDispatch(queue, 30), kStatusSuccess);
        }
    }
    void addHook(HookKind kind, TransportHookFunction run, void* closure) const {
        TransportHook* hook = nullptr;
        ASSERT_EQ(Transport_AddHook(&hook, kind, id, run, closure), kStatusSuccess);
    }
    // What the transport's listeners make a daemon hear, in the order of their table.
    Texts interest() const {
        Texts told = {kOwnInboxes};
        Transport* const transport = recordOf<Transport>(id);
        uint8_t* subjects = nullptr;
        size_t bytes = 0;
        Id_Enter(&transport->header);
        EXPECT_TRUE(transportListInterest(transport, &subjects, &bytes));
        Id_Leave(&transport->header);
        for (size_t at = 0; at < bytes; at += subjectLength(subjects + at)) {
            char text[kSubjectTextBytes];
            told.push_back(std::string("L ") + subjectToText(text, sizeof text, subjects + at));
        }
        std::free(subjects);
        return told;
    }
};

TEST_F(Link, CarriesMessagesBothWays) {
    connect();
    char inbox[100];
    ASSERT_EQ(pelmoTransport_CreateInbox(id, inbox, sizeof inbox), kStatusSuccess);
    EXPECT_EQ(inbox, "_INBOX." + kSession + ".1");
    TestListener listener(queue, "A.*", id);
    TestListener replies(queue, inbox, id);
    EXPECT_EQ(sendText(id, "A.B", "1"), kStatusSuccess);
    EXPECT_EQ(sendText(id, inbox, "2"), kStatusSuccess);
    const Message b = messageOn("B", "3"), c = messageOn("C", "4");
    pelmoMsg* both[] = {b.get(), c.get()};
    EXPECT_EQ(pelmoTransport_Sendv(id, both, 2), kStatusSuccess);
    dispatchUntil(replies, 1);
    EXPECT_EQ(listener.texts, Texts{"1"});
    EXPECT_EQ(replies.texts, Texts{"2"});
    listener.end();
    EXPECT_EQ(daemon.await("C A.*"),
              (Texts{"L A.*", textMessage("A.B", "1"), textMessage(inbox, "2"),
                     textMessage("B", "3"), textMessage("C", "4"), "C A.*"}));
}

TEST_F(Link, CarriesRequests) {
    connect();
    TestListener answers(queue, "ASK", id);
    answers.onMessage = [&](pelmoMsg* request) {
        const Message reply = messageOn(nullptr, "reply");
        EXPECT_EQ(pelmoTransport_SendReply(id, reply.get(), request), kStatusSuccess);
    };
    std::thread client([&] {
        const Message request = messageOn("ASK", "request");
        pelmoMsg* reply = nullptr;
        ASSERT_EQ(pelmoTransport_SendRequest(id, request.get(), &reply, 30), kStatusSuccess);
        EXPECT_EQ(textOf(reply), "reply");
        EXPECT_EQ(pelmoMsg_Destroy(reply), kStatusSuccess);
    });
    dispatchUntil(answers, 1);
    client.join();
}

// Requests that nobody answers: some wait ahead of the destroy, some meet it and may find the
// connection closed already, some are asked afterwards.
TEST_F(Link, EndsRequestsThatWait) {
    for (size_t round = 0; round < 20; ++round) {
        connect();
        std::atomic<size_t> ended = 0;
        const auto client = [&ended, transport = id] {
            const Message request = messageOn("A");
            pelmoMsg* reply = nullptr;
            const pelmoStatus status =
                pelmoTransport_SendRequest(transport, request.get(), &reply, -1.0);
            EXPECT_TRUE(status == kStatusInvalidTransport || status == kStatusDaemonNotConnected);
            if (status == kStatusInvalidTransport) ++ended;
        };
        std::thread clients[] = {std::thread(client), std::thread(client), std::thread(client)};
        (void)daemon.await(round % 4);
        EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
        for (std::thread& thread : clients)
            thread.join();
        EXPECT_GE(ended, round % 4);
        daemon.awaitOpen(0);
        (void)daemon.taken();
    }
}

TEST_F(Link, FailsWithWhatTheDaemonMakesOfIt) {
    const struct {
        const char* what;
        std::function<void(Manners&)> change;
        pelmoStatus status;
        const char* service = nullptr;
    } rows[] = {
        {"another protocol", [](Manners& m) { m.greeting = 5; }, kStatusWrongVersion},
        {"hangs up", [](Manners& m) { m.hangsUp = true; }, kStatusDaemonNotConnected},
        {"long names", [](Manners& m) { m.gob = std::string(41, 'g'); }, kStatusInitFailed},
        {"the service's own port", [](Manners&) {}, kStatusNotPermitted, "7500:7500"},
        {"no port", [](Manners&) {}, kStatusServiceNotFound, "7500:nosuch"},
    };
    stand.onLaunch = [](const std::string&) {
        ADD_FAILURE() << "there is a daemon";
        return false;
    };
    for (const auto& row : rows) {
        daemon.behave(row.change);
        EXPECT_EQ(create(row.service), row.status) << row.what;
        daemon.awaitOpen(0);
    }
    EXPECT_EQ(id, kNoId);
    EXPECT_EQ(create(nullptr, "ssl:"), kStatusDaemonNotConnected);
    EXPECT_EQ(create(nullptr, "-"), kStatusNotPermitted);
    EXPECT_EQ(create(nullptr, "nosuch:"), kStatusInvalidArgument);
    daemon.behave([](Manners& m) { m.gob = std::string(40, 'g'); });
    EXPECT_EQ(create("7500"), kStatusSuccess);
}

// Nobody listens at first.
TEST_F(Link, StartsADaemonOnceAndOnlyHere) {
    const uint16_t port = std::make_unique<TestDaemon>()->port();
    const std::string bare = std::to_string(port);
    std::unique_ptr<TestDaemon> started;
    Texts launched;
    bool starts = false, found = false;
    int sleeps = 0;
    stand.onLaunch = [&](const std::string& specification) {
        launched.push_back(specification);
        return found;
    };
    stand.onSleep = [&] {
        ++sleeps;
        if (starts) started = std::make_unique<TestDaemon>(port);
    };
    const auto connectTo = [&](const std::string& daemonText) {
        return pelmoTransport_CreateNetwork(&id, nullptr, nullptr, daemonText.c_str());
    };
    EXPECT_EQ(connectTo("127.0.0.1:" + bare), kStatusDaemonNotConnected);
    EXPECT_EQ(connectTo("ssl:" + bare), kStatusDaemonNotConnected);
    EXPECT_EQ(launched, Texts{});
    EXPECT_EQ(connectTo(bare), kStatusDaemonNotConnected);
    EXPECT_TRUE(launched == Texts{bare} && sleeps == 0);
    found = true;
    EXPECT_EQ(connectTo(":" + bare), kStatusDaemonNotConnected);
    EXPECT_TRUE(launched == (Texts{bare, ":" + bare}) && sleeps == 1);
    starts = true;
    EXPECT_EQ(connectTo("tcp:" + bare), kStatusSuccess);
    EXPECT_TRUE(launched.size() == 3 && sleeps == 2);
    EXPECT_EQ(started->await(3), kFirstWords);
    EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
}

// Each setting reaches the daemons that know it at once, and all of them with the next session.
TEST_F(Link, TellsSettingsByTheDaemonsVersion) {
    const Texts all = {R"({mtype="S" control="D" data="d"})", R"({mtype="S" control="H" data="h"})",
                       R"({mtype="S" control="C" data=true})",
                       R"({mtype="S" control="E" data=false})",
                       R"({mtype="S" control="R" data=2.5})"};
    const struct {
        DaemonVersion version;
        size_t known;
    } rows[] = {{{8, 2, 0}, 5}, {{8, 1, 9}, 4}, {{8, 0, 2}, 4},
                {{8, 0, 1}, 2}, {{6, 0, 0}, 2}, {{5, 9, 9}, 0}};
    for (const auto& [version, known] : rows) {
        daemon.behave([&](Manners& m) { m.version = version; });
        connect();
        EXPECT_EQ(pelmoTransport_SetDescription(id, "d"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetHttpAddress(id, "h"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetHidden(id, true), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetEcho(id, false), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_RequestReliability(id, 2.5), kStatusSuccess);
        EXPECT_EQ(sendText(id, "Z", "z"), kStatusSuccess);
        Texts told(all.begin(), all.begin() + static_cast<ptrdiff_t>(known));
        told.push_back(textMessage("Z", "z"));
        EXPECT_EQ(daemon.await(told.back()), told);
        breakAndRepair();
        EXPECT_EQ(daemon.await(3)[1], "start " + kSession +
                                          R"( rc=true descr="d" http="h" echo=false hide=true)"
                                          R"( rli=2.5})");
        EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
        daemon.awaitOpen(0);
        stand.now = stand.now + 100;
    }
    ASSERT_EQ(
        pelmoTransport_CreateNetworkNoResume(&id, nullptr, nullptr, daemon.specification().c_str()),
        kStatusSuccess);
    EXPECT_EQ(daemon.await(3)[1], "start " + kSession + " rc=false}");
    breakAndRepair();
    EXPECT_EQ(daemon.await(3), kNextWords);
}

const char* givenText = nullptr;
uint32_t givenLimit = 0;

struct Setting {
    pelmoStatus (*call)(uint32_t id);
    pelmoStatus unconnected = kStatusSuccess;
    pelmoStatus ofOtherKinds = kStatusNotPermitted;
};

#define SETTING(call) [](uint32_t id) { return pelmoTransport_##call; }

const Setting kSettings[] = {
    {SETTING(GetService(id, &givenText)), kStatusSuccess, kStatusInvalidTransport},
    {SETTING(GetDescription(id, &givenText))},
    {SETTING(SetDescription(id, "d"))},
    {SETTING(SetHttpAddress(id, nullptr))},
    {SETTING(SetHidden(id, false))},
    {SETTING(SetEcho(id, true))},
    {SETTING(RequestReliability(id, 2.5))},
    {SETTING(SetSendingWaitLimit(id, 3))},
    {SETTING(GetSendingWaitLimit(id, &givenLimit))},
    {SETTING(SetBatchMode(id, 1)), kStatusDaemonNotConnected},
    {SETTING(SetBlockingOnExcessiveBacklog(id, true)), kStatusDaemonNotConnected},
    {SETTING(HoldSends(id)), kStatusDaemonNotConnected},
    {SETTING(ReleaseSends(id)), kStatusDaemonNotConnected},
};

TEST_F(Link, TakesAndTellsSettings) {
    ASSERT_EQ(create("7501"), kStatusSuccess);
    for (const Setting& setting : kSettings) {
        SCOPED_TRACE(&setting - kSettings);
        EXPECT_EQ(setting.call(kLocal), setting.ofOtherKinds);
        EXPECT_EQ(setting.call(id), kStatusSuccess);
        eachAllocationFails([&] {
            const pelmoStatus status = setting.call(id);
            EXPECT_TRUE(status == kStatusSuccess ||
                        (allocationsFailed() != 0 && status == kStatusNoMemory));
        });
    }
    EXPECT_EQ(givenLimit, 3u);
    const std::string port = daemon.specification();
    const struct {
        pelmoStatus (*call)(uint32_t, const char**);
        const char* text;
    } getters[] = {{pelmoTransport_GetService, "7501"},
                   {pelmoTransport_GetNetwork, ""},
                   {pelmoTransport_GetDaemon, port.c_str()},
                   {pelmoTransport_GetDescription, "d"},
                   {pelmoTransport_GetHttpAddress, ""}};
    for (const auto& [call, text] : getters) {
        ASSERT_EQ(call(id, &givenText), kStatusSuccess);
        EXPECT_STREQ(givenText, text);
        EXPECT_EQ(call(id, nullptr), kStatusInvalidArgument);
    }
    for (const double seconds : {0.0, -1.0, std::nan("")})
        EXPECT_EQ(pelmoTransport_RequestReliability(77777, seconds), kStatusInvalidArgument);
}

TEST_F(Link, HasNoConnectionUntilRepaired) {
    connect();
    EXPECT_EQ(pelmoTransport_SetSendingWaitLimit(id, 5), kStatusSuccess);
    daemon.breakConnections();
    const LinkStand::Timer timer = stand.awaitTimer();
    EXPECT_EQ(pelmoTransport_GetSendingWaitLimit(id, &givenLimit), kStatusSuccess);
    EXPECT_EQ(givenLimit, 5u);
    EXPECT_EQ(sendText(id, "A"), kStatusDaemonNotConnected);
    const Message a = messageOn("A");
    pelmoMsg* one = a.get();
    EXPECT_EQ(pelmoTransport_Sendv(id, &one, 1), kStatusDaemonNotConnected);
    for (const Setting& setting : kSettings)
        EXPECT_EQ(setting.call(id), setting.unconnected);
    const TestListener listener(queue, "A", id);
    daemon.behave([](Manners& m) { m.gob = "OTHER"; });
    const std::string start = "start " + kSession + R"( rc=true descr="d" http="" rli=2.5})";
    stand.fire(timer);
    EXPECT_EQ(daemon.await("L A"), (Texts{start, start, kOwnInboxes, "L A"}));
    EXPECT_EQ(pelmoTransport_HoldSends(id), kStatusSuccess);
    EXPECT_EQ(sendText(id, "A", "held"), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), Texts{});
    EXPECT_EQ(pelmoTransport_ReleaseSends(id), kStatusSuccess);
    EXPECT_EQ(daemon.await(1), Texts{textMessage("A", "held")});
    EXPECT_EQ(pelmoTransport_SetBatchMode(id, 1), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_SetBatchMode(id, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoTransport_SetBlockingOnExcessiveBacklog(id, false), kStatusSuccess);
}

// Hooks of interest, of breaks and of repairs; what they do in the middle of a connect is told
// behind it, and once.
TEST_F(Link, RunsHooksAroundItsConnections) {
    connect();
    struct Log {
        Link* link;
        std::mutex mutex{};
        Texts calls{};
        TestListener late{};
        bool isOver = false;

        void add(const char* call) {
            const std::lock_guard guard(mutex);
            calls.emplace_back(call);
        }
        Texts taken() {
            const std::lock_guard guard(mutex);
            return std::exchange(calls, {});
        }
    } log{this};
    const TestListener early(queue, "A", id);
    EXPECT_EQ(daemon.await(1), Texts{"L A"});
    addHook(
        kHookInterest,
        [](uint32_t transport, pelmoMsg** message, void* closure) -> pelmoStatus {
            auto* const seen = static_cast<Log*>(closure);
            const char* text = nullptr;
            EXPECT_EQ(pelmoMsg_GetString(*message, "sub", &text, 0), kStatusSuccess);
            seen->add(text);
            if (text == std::string("A") && !seen->isOver) {
                EXPECT_EQ(seen->late.listen(seen->link->queue, "B", transport), kStatusSuccess);
                EXPECT_EQ(pelmoTransport_SetEcho(transport, false), kStatusSuccess);
                EXPECT_EQ(sendText(transport, "A"), kStatusDaemonNotConnected);
            }
            if (text == std::string("C")) return kStatusNotPermitted;
            return pelmoMsg_AddI32(*message, "hook", 7, 0);
        },
        &log);
    for (const HookKind kind : {kHookDisconnect, kHookReconnect}) {
        addHook(
            kind,
            [](uint32_t transport, pelmoMsg** message, void* closure) -> pelmoStatus {
                EXPECT_EQ(message, nullptr);
                const bool connected = pelmoTransport_HoldSends(transport) == kStatusSuccess;
                if (connected) {
                    EXPECT_EQ(pelmoTransport_ReleaseSends(transport), kStatusSuccess);
                }
                static_cast<Log*>(closure)->add(connected ? "up" : "down");
                return kStatusNotPermitted;
            },
            &log);
    }
    TestListener advisories(queue, "_PM.WARN.SYSTEM.PMD.DISCONNECTED", id);
    TestListener returns(queue, "_PM.INFO.SYSTEM.PMD.RECONNECTED", id);
    double deafSeconds = -1;
    returns.onMessage = [&](pelmoMsg* message) {
        EXPECT_EQ(pelmoMsg_GetF64(message, "seconds", &deafSeconds, 0), kStatusSuccess);
    };
    EXPECT_EQ(daemon.await(2),
              (Texts{"L _PM.WARN.SYSTEM.PMD.DISCONNECTED", "L _PM.INFO.SYSTEM.PMD.RECONNECTED"}));
    (void)log.taken();
    daemon.breakConnections();
    const LinkStand::Timer timer = stand.awaitTimer();
    stand.now = stand.now + 7;
    stand.fire(timer);
    dispatchUntil(advisories, 1);
    dispatchUntil(returns, 1);
    EXPECT_DOUBLE_EQ(deafSeconds, 7);
    const std::string control = R"({mtype="S" control="E" data=false})";
    Texts told = daemon.await(control);
    EXPECT_EQ(std::count(told.begin(), told.end(), "L B"), 1);
    EXPECT_EQ(told.back(), control);
    const Texts calls = log.taken();
    EXPECT_EQ(calls.front(), "down");
    EXPECT_EQ(calls.back(), "up");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "B"), 1);
    log.isOver = true;
    const TestListener refused(queue, "C", id);
    EXPECT_EQ(sendText(id, "D"), kStatusSuccess);
    EXPECT_EQ(daemon.await(1).size(), 1u);
}

// At random places of the stream, the handshake's end and the start messages among them.
TEST_F(Link, OutlivesAThousandBreaks) {
    connect();
    std::list<TestListener> listeners;
    for (const char* subject : {"A", "A.B", "A.*", "A.>", "B.C", "_INBOX.X.DAEMON.1",
                                "_INBOX.X.ROUTED.1", "_INBOX.X.Y.ROUTED", ">"}) {
        listeners.emplace_back(queue, subject, id);
    }
    listeners.emplace_back(queue, ("_INBOX." + kSession + ".7").c_str(), id);
    Texts news;
    listeners.emplace_back(queue, "_PM.*.SYSTEM.PMD.*", id);
    listeners.back().onMessage = [&news](pelmoMsg* message) {
        const char* name = nullptr;
        EXPECT_EQ(pelmoMsg_GetString(message, "ADV_NAME", &name, 0), kStatusSuccess);
        news.emplace_back(name);
    };
    Texts whole = {kNextWords[0], kNextWords[1]};
    for (const std::string& words : interest())
        whole.push_back(words);
    (void)daemon.await(listeners.size() - 1);
    std::atomic<int> repairs = 0;
    addHook(
        kHookReconnect,
        [](uint32_t, pelmoMsg**, void* closure) -> pelmoStatus {
            ++*static_cast<std::atomic<int>*>(closure);
            return kStatusSuccess;
        },
        &repairs);

    std::minstd_rand random(7);
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    BreakRow row = {};
    int sent = 0, breaks = 0, failures = 0, last = -1;
    bool isUp = true;
    daemon.breakConnections();
    while (breaks < 1000) {
        // Sends until the break is seen; none of them is ever sent twice.
        while (isUp && stand.timers() == 0) {
            (void)sendText(id, "S", std::to_string(sent++).c_str());
        }
        const LinkStand::Timer timer = stand.awaitTimer();
        ASSERT_EQ(stand.timers(), 1u);
        ASSERT_DOUBLE_EQ(timer.seconds,
                         isUp ? reconnectDelay(&row, stand.now, stand.random) : kRetrySeconds);
        ++(isUp ? breaks : failures);
        const Texts told = daemon.taken();
        for (size_t i = 0; i < told.size(); ++i) {
            if (breaks + failures == 1) break;  // the first connection
            if (i < whole.size()) {
                ASSERT_EQ(told[i], whole[i]);
                continue;
            }
            int number = -1;
            ASSERT_EQ(std::sscanf(told[i].c_str(), "S {text=\"%d\"", &number), 1) << told[i];
            ASSERT_GT(number, last);
            last = number;
        }
        stand.now = stand.now + below(90);
        stand.random = below(kReconnectSpreadMs);
        daemon.behave([&](Manners& m) { m.bytesUntilBreak = static_cast<int32_t>(below(2000)); });
        const int former = repairs;
        stand.fire(timer);
        isUp = repairs != former;
    }
    EXPECT_GT(failures, 10);
    EXPECT_GT(last, 1000);

    // Each return is told between two breaks, however soon the next one comes.
    while (pelmoQueue_TimedDispatch(queue, 0) == kStatusSuccess) {
    }
    for (size_t i = 0; i < news.size(); ++i) {
        ASSERT_EQ(news[i], i % 2 == 0 ? "PMD.DISCONNECTED" : "PMD.RECONNECTED") << i;
    }
    EXPECT_GE(news.size(), 1999u);
}

TEST_F(Link, EndsTheWaitForADaemonThatWasStarted) {
    const std::string nobody = std::to_string(std::make_unique<TestDaemon>()->port());
    std::latch asleep(1);
    stand.onLaunch = [&](const std::string&) {
        asleep.count_down();
        return true;
    };
    linkEnvironment.startSeconds = 1000;
    std::thread creation([&] {
        uint32_t made = kNoId;
        EXPECT_EQ(pelmoTransport_CreateNetwork(&made, nullptr, nullptr, nobody.c_str()),
                  kStatusDaemonNotConnected);
    });
    asleep.wait();
    EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    creation.join();
}

// Writers that wait hold up neither a break nor others.
TEST_F(Link, LetsGoOfBlockedWritersAtABreak) {
    // Well above what the system takes from a writer, and below what a link allows at first.
    constexpr int kMostWrites = 140;
    daemon.behave([](Manners& m) { m.messagesUntilDeaf = 3; });
    connect();
    ASSERT_EQ(pelmoTransport_SetSendingWaitLimit(id, 1000), kStatusSuccess);
    breakAndRepair();
    std::atomic<int> sent = 0;
    const std::string large(100000, 'x');
    const auto write = [&] {
        while (sendText(id, "S", large.c_str()) == kStatusSuccess)
            ++sent;
    };
    std::thread writers[] = {std::thread(write), std::thread(write)};
    for (int before = -1; before != sent || sent == 0;) {
        before = sent;
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0.05), kStatusTimeout);
    }
    EXPECT_EQ(pelmoTransport_HoldSends(id), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_SetSendingWaitLimit(id, 2000), kStatusSuccess);
    EXPECT_LT(sent, kMostWrites);
    daemon.breakConnections();
    (void)stand.awaitTimer();
    for (std::thread& writer : writers)
        writer.join();
}

TEST_F(Link, TellsOfMessagesThatWaitTooLong) {
    timespec monotonic;
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &monotonic), 0);
    const FixedMonotonic clock(monotonic.tv_sec);
    daemon.behave([](Manners& m) { m.messagesUntilDeaf = 3; });
    connect();
    breakAndRepair();
    ASSERT_EQ(pelmoTransport_SetBlockingOnExcessiveBacklog(id, false), kStatusSuccess);
    TestListener told(queue, "_PM.WARN.SYSTEM.CLIENT.FASTPRODUCER", id);
    told.onMessage = [](pelmoMsg* advisory) {
        uint32_t waiting = 0;
        EXPECT_EQ(pelmoMsg_GetU32(advisory, "waiting", &waiting, 0), kStatusSuccess);
        EXPECT_GT(waiting, 0u);
    };
    const std::string large(100000, 'x');
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(sendText(id, "S", large.c_str()), kStatusSuccess);
    clock.set(monotonic.tv_sec + 7);
    dispatchUntil(told, 1);
    daemon.breakConnections();
    (void)stand.awaitTimer();
}

TEST_F(Link, ConnectsWhenMemoryAllows) {
    EXPECT_GT(eachAllocationFails([&] {
                  const pelmoStatus status = create();
                  EXPECT_TRUE(status == kStatusSuccess || allocationsFailed() != 0) << status;
                  allocationsHeal();
                  if (status != kStatusSuccess) return;
                  EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
              }),
              20u);
    daemon.awaitOpen(0);
    (void)daemon.taken();

    connect();
    const TestListener listener(queue, "A", id);
    EXPECT_GT(eachAllocationFails([&] {
                  breakAndRepair();
                  allocationsHeal();
                  while (stand.timers() != 0)
                      stand.fire(stand.awaitTimer());
                  EXPECT_EQ(sendText(id, "B", "up"), kStatusSuccess);
                  // A break that memory brings late may have begun the next connection already.
                  const Texts told = daemon.await(textMessage("B", "up"));
                  const auto up = std::find(told.begin(), told.end(), textMessage("B", "up"));
                  ASSERT_GE(up - told.begin(), 2);
                  EXPECT_EQ(std::count(up - 2, up, "L A"), 1);
                  stand.now = stand.now + 100;
              }),
              10u);
}

// Everything at once, for the thread sanitizer.
TEST_F(Link, BearsAllThreadsAtOnce) {
    connect();
    uint32_t dispatcher = 0;
    ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0), kStatusSuccess);
    std::atomic<bool> ends = false;
    const auto until = [&](auto work) {
        return std::thread([&ends, work] {
            while (!ends)
                work();
        });
    };
    TestListener heard;
    heard.onMessage = [&](pelmoMsg*) { heard.texts.clear(); };
    ASSERT_EQ(heard.listen(queue, "S", id), kStatusSuccess);
    const uint32_t transport = id;
    std::thread threads[] = {
        until([=] { (void)sendText(transport, "S", "s"); }),
        until([=] { (void)sendText(transport, "S", "t"); }),
        until([=, this] {
            TestListener brief;
            (void)brief.listen(queue, "T", transport);
            (void)pelmoTransport_SetDescription(transport, "d");
        }),
        until([this] {
            if (stand.timers() != 0) stand.fire(stand.awaitTimer());
            std::this_thread::yield();
        }),
    };
    for (size_t connections = 2; connections < 40; ++connections) {
        daemon.awaitAccepted(connections - 1);
        daemon.breakConnections();
        daemon.awaitAccepted(connections);
    }
    EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
    ends = true;
    for (std::thread& thread : threads)
        thread.join();
    heard.end();
    pelmoDispatcher_Destroy(dispatcher);
}

}  // namespace
