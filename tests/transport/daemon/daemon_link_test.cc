// Network transports over a daemon: sessions, what goes out and comes in, breaks and repairs.

#include <algorithm>
#include <cmath>
#include <latch>
#include <list>
#include <random>

#include "lib/transport/daemon/daemon_link_internal.h"
#include "lib/transport/daemon/reconnect.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "tests/support/link_fixture.h"
#include "tests/support/misbehaving_daemon.h"
#include "tests/support/test.h"

namespace {

// No daemon listens at first.
TEST_F(Link, StartsADaemonOnceAndOnlyHere) {
    const uint16_t port = std::make_unique<TestDaemon>()->port();
    const std::string bare = std::to_string(port);
    const MisbehavingDaemon rude({hangUp()});
    const std::string rudePort = rude.name().substr(rude.name().find(':') + 1);
    std::unique_ptr<TestDaemon> started;
    Texts launched;
    bool starts = false, found = false;
    int sleeps = 0;
    fixture.onLaunch = [&](const std::string& specification) {
        launched.push_back(specification);
        return found;
    };
    fixture.onSleep = [&] {
        ++sleeps;
        if (starts) started = std::make_unique<TestDaemon>(port);
    };
    const auto connectTo = [&](const std::string& daemonText) {
        return pelmoTransport_CreateNetwork(&id, nullptr, nullptr, daemonText.c_str());
    };
    // Neither elsewhere, nor beside one that hangs up.
    for (const std::string& text : {"127.0.0.1:" + bare, "ssl:" + bare, rudePort})
        EXPECT_EQ(connectTo(text), kStatusDaemonNotConnected);
    EXPECT_EQ(launched, Texts{});
    EXPECT_EQ(connectTo(bare), kStatusDaemonNotConnected);
    EXPECT_EQ(sleeps, 0);
    found = true;
    EXPECT_EQ(connectTo(":" + bare), kStatusDaemonNotConnected);
    EXPECT_EQ(sleeps, 1);
    starts = true;
    EXPECT_EQ(connectTo("tcp:" + bare), kStatusSuccess);
    EXPECT_TRUE(launched == (Texts{bare, ":" + bare, "tcp:" + bare}) && sleeps == 2);
    EXPECT_EQ(started->await(3), kFirstWords);
    EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
}

// Each setting reaches the daemons that know it at once, and all of them with the next session.
TEST_F(Link, SendsSettingsByTheDaemonsVersion) {
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
        daemon.behave([now = version](Behaviour& m) { m.version = now; });
        connect();
        EXPECT_EQ(pelmoTransport_SetDescription(id, "d"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetHttpAddress(id, "h"), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetHidden(id, true), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_SetEcho(id, false), kStatusSuccess);
        EXPECT_EQ(pelmoTransport_RequestReliability(id, 2.5), kStatusSuccess);
        EXPECT_EQ(sendText(id, "Z", "z"), kStatusSuccess);
        Texts expected(all.begin(), all.begin() + static_cast<ptrdiff_t>(known));
        expected.push_back(textMessage("Z", "z"));
        EXPECT_EQ(daemon.await(expected.back()), expected);
        breakAndRepair();
        EXPECT_EQ(daemon.await(3)[1], "start " + kSession +
                                          R"( rc=true descr="d" http="h" echo=false hide=true)"
                                          R"( rli=2.5})");
        EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
        daemon.awaitOpen(0);
        fixture.now = fixture.now + 100;
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

TEST_F(Link, KeepsSettingsWhileItHasNoConnection) {
    ASSERT_EQ(create("7501"), kStatusSuccess);
    for (const Setting& setting : kSettings) {
        SCOPED_TRACE(&setting - kSettings);
        EXPECT_EQ(setting.call(kLocal), setting.ofOtherKinds);
        EXPECT_EQ(setting.call(id), kStatusSuccess);
    }
    EXPECT_EQ(givenLimit, 3u);
    const auto given = [this](pelmoStatus (*get)(uint32_t, const char**)) {
        EXPECT_EQ(get(id, nullptr), kStatusInvalidArgument);
        EXPECT_EQ(get(id, &givenText), kStatusSuccess);
        return std::string(givenText);
    };
    EXPECT_EQ(given(pelmoTransport_GetService), "7501");
    EXPECT_EQ(given(pelmoTransport_GetNetwork), "");
    EXPECT_EQ(given(pelmoTransport_GetDaemon), daemon.specification());
    EXPECT_EQ(given(pelmoTransport_GetDescription), "d");
    EXPECT_EQ(given(pelmoTransport_GetHttpAddress), "");
    for (const double seconds : {0.0, -1.0, std::nan("")})
        EXPECT_EQ(pelmoTransport_RequestReliability(77777, seconds), kStatusInvalidArgument);

    EXPECT_EQ(pelmoTransport_SetSendingWaitLimit(id, 5), kStatusSuccess);
    (void)heard();
    daemon.breakConnections();
    const LinkFixture::Timer timer = fixture.awaitTimer();
    EXPECT_EQ(pelmoTransport_GetSendingWaitLimit(id, &givenLimit), kStatusSuccess);
    EXPECT_EQ(givenLimit, 5u);
    EXPECT_EQ(sendText(id, "A"), kStatusDaemonNotConnected);
    const Message a = messageOn("A");
    pelmoMsg* one = a.get();
    EXPECT_EQ(pelmoTransport_Sendv(id, &one, 1), kStatusDaemonNotConnected);
    for (const Setting& setting : kSettings)
        EXPECT_EQ(setting.call(id), setting.unconnected);
    const TestListener listener(queue, "A", id);
    daemon.behave([](Behaviour& m) { m.gob = "OTHER"; });
    const std::string start = "start " + kSession + R"( rc=true descr="d" http="" rli=2.5})";
    fixture.fire(timer);
    EXPECT_EQ(daemon.await("L A"), (Texts{start, start, kOwnInboxes, "L A"}));
    Ipq* const ipq = linkTakeQueue(recordOf<Transport>(id)->link);
    Lock_Enter(&ipq->lock);
    EXPECT_EQ(ipq->waitLimit, 3u);
    Lock_Leave(&ipq->lock);
    ipqRelease(ipq);
    EXPECT_EQ(pelmoTransport_HoldSends(id), kStatusSuccess);
    EXPECT_EQ(sendText(id, "A", "held"), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), Texts{});
    EXPECT_EQ(pelmoTransport_ReleaseSends(id), kStatusSuccess);
    EXPECT_EQ(daemon.await(1), Texts{textMessage("A", "held")});
    EXPECT_EQ(pelmoTransport_SetBatchMode(id, 1), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_SetBatchMode(id, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoTransport_SetBlockingOnExcessiveBacklog(id, false), kStatusSuccess);
}

// A hook of a transport: stores what it is called with, and finds the transport's lock free.
struct HookLog {
    uint32_t transport;
    Texts calls{};
    pelmoStatus answer = kStatusSuccess;
    std::function<void(pelmoMsg**)> act{};
    uint32_t runs = 0;

    TransportHook* add(HookKind kind) {
        TransportHook* hook = nullptr;
        EXPECT_EQ(Transport_AddHook(&hook, kind, transport, run, this), kStatusSuccess);
        return hook;
    }
    static pelmoStatus run(uint32_t id, pelmoMsg** message, void* closure) {
        auto* self = static_cast<HookLog*>(closure);
        EXPECT_EQ(id, self->transport);
        self->calls.push_back(message != nullptr ? textOf(*message) : "-");
        expectTransportsFree(0, &self->runs);
        if (self->act) self->act(message);
        return self->answer;
    }
};

TEST_F(Link, AnnouncesWhatIsListenedTo) {
    connect();
    const std::string own = "_INBOX." + kSession + ".";
    const struct {
        std::string subject;
        pelmoStatus status = kStatusSuccess;
        std::string kinds = "";  // of what is announced
    } rows[] = {
        {"A.B", kStatusSuccess, "LC"},
        {"A.>", kStatusSuccess, "LC"},
        {own + "7"},
        {own + "*", kStatusInvalidSubject},
        {"_INBOX.X.Y.7", kStatusInvalidSubject},
        {"_INBOX.X.DAEMON.7", kStatusSuccess, "L"},
        {"_INBOX.X.ROUTED.7", kStatusSuccess, "L"},
        {"_INBOX.X.Y.ROUTED", kStatusSuccess, "L"},
        {"_INBOX.X.Y.DAEMON", kStatusInvalidSubject},
        {"_INBOX.X.DAEMON.>", kStatusInvalidSubject},
    };
    for (const auto& [subject, status, kinds] : rows) {
        SCOPED_TRACE(subject);
        TestListener first, second;
        EXPECT_EQ(first.listen(queue, subject.c_str(), id), status);
        // The second one isn't news, nor is the end of the first while the second stays.
        EXPECT_EQ(second.listen(queue, subject.c_str(), id), status);
        const Texts begin(kinds.starts_with("L") ? 1 : 0, "L " + subject);
        EXPECT_EQ(heard(), begin);
        breakAndRepair();
        Texts nextWords = kNextWords;
        nextWords.insert(nextWords.end(), begin.begin(), begin.end());
        EXPECT_EQ(heard(), nextWords);
        first.end();
        second.end();
        EXPECT_EQ(heard(), Texts(kinds == "LC" ? 1 : 0, "C " + subject));
    }
    // An advisory never leaves: it is logged, unless that is switched off.
    for (const bool isQuiet : {false, true}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(pelmoTransport_SendAdvisory(id, "WARN", "S", "N", nullptr), kStatusSuccess);
        EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), isQuiet);
        EXPECT_EQ(pelmoTransport_SetQuietUnhandled(id), kStatusSuccess);
    }
    EXPECT_EQ(heard(), Texts{});
    // A hidden transport may send and hear more.
    ASSERT_EQ(pelmoTransport_SetHidden(id, true), kStatusSuccess);
    const TestListener wild(queue, "_INBOX.X.DAEMON.>", id);
    EXPECT_EQ(sendText(id, "_PM.X", "x"), kStatusSuccess);
    EXPECT_EQ(heard(), (Texts{R"({mtype="S" control="C" data=true})", "L _INBOX.X.DAEMON.>",
                              textMessage("_PM.X", "x")}));

    // A listener that begins while the end of the last one is announced is announced after it.
    HookLog interests{id};
    TestListener last(queue, "A", id), next;
    interests.add(kHookInterest);
    interests.act = [&](pelmoMsg**) {
        if (interests.calls.size() > 1) return;
        EXPECT_EQ(next.listen(queue, "A", id), kStatusSuccess);
    };
    last.end();
    next.end();
    EXPECT_EQ(heard(), (Texts{"L A", "L A", "C A", "L A", "C A"}));
}

TEST_F(Link, DeliversBatches) {
    connect();
    const std::string own = "_INBOX." + kSession + ".1";
    const uint32_t other = makeQueue();
    TestListener all(queue, ">", id);
    const TestListener wild(other, "A.*", id), inbox(queue, own.c_str(), id),
        inboxToo(queue, own.c_str(), id);
    const std::vector<std::pair<std::string, const char*>> batch = {
        {"A.B", "1"}, {"A.B", "2"}, {"B", "3"},           {"A.C", "4"},
        {"A.B", "5"}, {own, "6"},   {"_INBOX.2.3.4", "7"}};
    arrive(batch);
    dispatchAll(other);
    EXPECT_EQ(all.texts, (Texts{"1", "2", "3", "4", "5"}));  // a wildcard gets no inbox's
    EXPECT_EQ(wild.texts, (Texts{"1", "2", "4", "5"}));
    EXPECT_TRUE(inbox.texts == Texts{"6"} && inboxToo.texts == Texts{"6"});

    // With one listener the message itself goes on; ">" matches the inbox, but doesn't count.
    for (const char* subject : {"B", "_INBOX.9.DAEMON"}) {
        TestListener sees(other, "_INBOX.9.DAEMON", id);
        const pelmoMsg* seen = nullptr;
        sees.onMessage = all.onMessage = [&](pelmoMsg* message) { seen = message; };
        pelmoMsg* single = messageOn(subject).release();
        Transport_DeliverBatch(recordOf<Transport>(id), {&single, 1});
        dispatchAll(queue);
        dispatchAll(other);
        EXPECT_EQ(seen, single);
    }
    // More than are handed to a queue at once, and to the first of several listeners alone.
    uint32_t posts = 0;
    ASSERT_EQ(pelmoQueue_SetHook(queue, expectTransportsFree, &posts), kStatusSuccess);
    all.onMessage = nullptr;
    arrive({300, {own, "x"}});
    EXPECT_EQ(posts, 600u);
    ASSERT_EQ(pelmoTransport_SetFirstListenerOnly(id), kStatusSuccess);
    arrive({300, {own, "x"}});
    EXPECT_EQ(posts, 900u);
}

TEST_F(Link, RunsHooksBeforeSendsAndAtDispatch) {
    connect();
    HookLog log{id}, inbound{id}, ends{id};
    TransportHook* hook = log.add(kHookSend);
    EXPECT_EQ(sendText(id, "A", "1"), kStatusSuccess);
    log.answer = kStatusNotPermitted;
    EXPECT_EQ(sendText(id, "A", "2"), kStatusNotPermitted);
    log.answer = kStatusSuccess;
    log.act = [](pelmoMsg** message) { *message = messageOn("A", "other").release(); };
    EXPECT_EQ(sendText(id, "A", "3"), kStatusSuccess);
    EXPECT_EQ(daemon.await(2), (Texts{textMessage("A", "1"), textMessage("A", "other")}));

    // More than fit on the stack, the first of which removes itself.
    for (int i = 0; i < 70; ++i)
        log.add(kHookSend);
    log.act = [&](pelmoMsg**) {
        if (hook == nullptr) return;
        EXPECT_EQ(Transport_RemoveHook(std::exchange(hook, nullptr)), kStatusSuccess);
    };
    for (const size_t count : {71u, 70u}) {
        log.calls.clear();
        EXPECT_EQ(sendText(id, "A", "4"), kStatusSuccess);
        EXPECT_EQ(log.calls, Texts(count, "4"));
    }
    // A dispatch ignores what a hook puts in the message's place.
    const TestListener listener(queue, "A", id);
    hook = inbound.add(kHookInbound);
    inbound.act = [](pelmoMsg** message) { *message = messageOn("A", "-").release(); };
    arrive({{"A", "1"}});
    inbound.act = nullptr;
    inbound.answer = kStatusNotPermitted;
    arrive({{"A", "2"}});
    EXPECT_EQ(Transport_RemoveHook(hook), kStatusSuccess);
    arrive({{"A", "3"}});
    EXPECT_EQ(listener.texts, (Texts{"1", "3"}));
    EXPECT_EQ(inbound.calls, (Texts{"1", "2"}));

    // A destroy by a send's hook: nothing goes out. Its own hooks see the id valid, and then gone.
    log.act = nullptr;
    (void)heard();
    ends.add(kHookDestroyed);
    ends.add(kHookDestroy);
    log.act = [&](pelmoMsg**) { (void)pelmoTransport_Destroy(id); };
    ends.act = [&](pelmoMsg**) {
        const bool isValid = Id_Check(id, IdType::kTransport) == kStatusSuccess;
        EXPECT_EQ(isValid, ends.calls.size() == 1);
        EXPECT_EQ(pelmoTransport_Destroy(id), kStatusInvalidTransport);  // under way, or over
    };
    EXPECT_EQ(sendText(id, "A", "5"), kStatusSuccess);
    daemon.awaitOpen(0);
    EXPECT_EQ(daemon.taken(), Texts{});
    EXPECT_EQ(ends.calls, (Texts{"-", "-"}));
    EXPECT_EQ(Transport_AddHook(&hook, kHookSend, id, HookLog::run, &log), kStatusInvalidTransport);
    id = kNoId;
}

// Hooks of interest, of breaks and of repairs; what they do in the middle of a connect reaches the
// daemon after it, and once.
TEST_F(Link, RunsHooksAroundItsConnections) {
    connect();
    HookLog interests{id}, changes{id};
    TestListener early(queue, "A", id), late, returns(queue, "_PM.INFO.SYSTEM.PMD.*", id);
    EXPECT_EQ(daemon.await(2), (Texts{"L A", "L _PM.INFO.SYSTEM.PMD.*"}));
    bool isOver = false;
    interests.act = [&](pelmoMsg** message) {
        const char* subject = nullptr;
        EXPECT_EQ(pelmoMsg_GetString(*message, "sub", &subject, 0), kStatusSuccess);
        interests.calls.back() = subject;
        if (interests.calls.back() == "A" && !std::exchange(isOver, true)) {
            EXPECT_EQ(late.listen(queue, "B", id), kStatusSuccess);
            EXPECT_EQ(pelmoTransport_SetEcho(id, false), kStatusSuccess);
            EXPECT_EQ(sendText(id, "A"), kStatusDaemonNotConnected);
        }
        interests.answer = pelmoMsg_AddI32(*message, "hook", 7, 0);
        if (interests.calls.back() == "C") interests.answer = kStatusNotPermitted;
    };
    changes.answer = kStatusNotPermitted;
    changes.act = [&](pelmoMsg**) {
        const bool isUp = pelmoTransport_HoldSends(id) == kStatusSuccess;
        changes.calls.back() += isUp ? "up" : "down";
        if (isUp) (void)pelmoTransport_ReleaseSends(id);
    };
    interests.add(kHookInterest);
    changes.add(kHookDisconnect);
    changes.add(kHookReconnect);
    double deafSeconds = -1;
    returns.onMessage = [&](pelmoMsg* message) {
        EXPECT_EQ(pelmoMsg_GetF64(message, "seconds", &deafSeconds, 0), kStatusSuccess);
    };
    daemon.breakConnections();
    const LinkFixture::Timer timer = fixture.awaitTimer();
    fixture.now = fixture.now + 7;
    fixture.fire(timer);
    dispatchUntil(returns, 1);
    EXPECT_DOUBLE_EQ(deafSeconds, 7);
    const std::string control = R"({mtype="S" control="E" data=false})";
    const Texts texts = daemon.await(control);
    EXPECT_EQ(std::ranges::count(texts, "L B"), 1);
    EXPECT_EQ(texts.back(), control);
    EXPECT_EQ(changes.calls, (Texts{"-down", "-up"}));
    EXPECT_EQ(std::ranges::count(interests.calls, "B"), 1);
    const TestListener refused(queue, "C", id);
    EXPECT_EQ(heard(), Texts{});
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
    const Texts announced = daemon.await(listeners.size() - 1);
    breakAndRepair();
    const Texts whole = daemon.await(kNextWords.size() + announced.size());
    for (const std::string& text : announced)
        EXPECT_EQ(std::ranges::count(whole, text), 1) << text;
    fixture.now = fixture.now + 100;
    HookLog repairs{id};
    repairs.add(kHookReconnect);

    std::minstd_rand random(7);
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    BreakRow row = {};
    int sent = 0, breaks = 0, failures = 0, last = -1;
    bool isUp = true;
    daemon.breakConnections();
    while (breaks < 1000) {
        // Sends until the break is seen; none of them is ever sent twice.
        while (isUp && fixture.timers() == 0) {
            (void)sendText(id, "S", std::to_string(sent++).c_str());
        }
        const LinkFixture::Timer timer = fixture.awaitTimer();
        ASSERT_EQ(fixture.timers(), 1u);
        ASSERT_DOUBLE_EQ(timer.seconds,
                         isUp ? reconnectDelay(&row, fixture.now, fixture.random) : kRetrySeconds);
        ++(isUp ? breaks : failures);
        const Texts came = daemon.taken();
        for (size_t i = 0; i < came.size(); ++i) {
            if (breaks + failures == 1) break;  // the connection before
            if (i < whole.size()) {
                ASSERT_EQ(came[i], whole[i]);
                continue;
            }
            int number = -1;
            ASSERT_EQ(std::sscanf(came[i].c_str(), "S {text=\"%d\"", &number), 1) << came[i];
            ASSERT_GT(number, last);
            last = number;
        }
        fixture.now = fixture.now + below(90);
        fixture.random = below(kReconnectSpreadMs);
        daemon.behave([&](Behaviour& m) { m.bytesUntilBreak = below(2000); });
        const uint32_t former = repairs.runs;
        fixture.fire(timer);
        isUp = repairs.runs != former;
    }
    EXPECT_GT(failures, 10);
    EXPECT_GT(last, 1000);

    // Each return is reported between two breaks, however soon the next one comes.
    while (pelmoQueue_TimedDispatch(queue, 0) == kStatusSuccess) {
    }
    for (size_t i = 0; i < news.size(); ++i) {
        ASSERT_EQ(news[i], i % 2 == 0 ? "PMD.DISCONNECTED" : "PMD.RECONNECTED") << i;
    }
    EXPECT_GE(news.size(), 1999u);
}

TEST_F(Link, EndsTheWaitForADaemonThatWasStarted) {
    const std::string unused = std::to_string(std::make_unique<TestDaemon>()->port());
    std::latch asleep(1);
    fixture.onLaunch = [&](const std::string&) {
        asleep.count_down();
        return true;
    };
    linkEnvironment.startSeconds = 1000;
    std::thread creation([&] {
        uint32_t made = kNoId;
        EXPECT_EQ(pelmoTransport_CreateNetwork(&made, nullptr, nullptr, unused.c_str()),
                  kStatusDaemonNotConnected);
    });
    asleep.wait();
    EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    creation.join();
}

TEST_F(Link, ReportsMessagesThatWaitTooLong) {
    const auto monotonic = static_cast<int64_t>(clockMonotonicNanoseconds() / 1'000'000'000);
    const FixedMonotonic clock(monotonic);
    daemon.behave([](Behaviour& m) { m.messagesUntilDeaf = 3; });
    connect();
    breakAndRepair();
    ASSERT_EQ(pelmoTransport_SetBlockingOnExcessiveBacklog(id, false), kStatusSuccess);
    TestListener warnings(queue, "_PM.WARN.SYSTEM.CLIENT.FASTPRODUCER", id);
    uint32_t waiting = 0;
    warnings.onMessage = [&](pelmoMsg* advisory) {
        EXPECT_EQ(pelmoMsg_GetU32(advisory, "waiting", &waiting, 0), kStatusSuccess);
    };
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(sendText(id, "S", std::string(100'000, 'x').c_str()), kStatusSuccess);
    clock.set(monotonic + 7);
    dispatchUntil(warnings, 1);
    EXPECT_GT(waiting, 0u);
    daemon.breakConnections();
    (void)fixture.awaitTimer();
}

// Everything at once, for the thread sanitizer.
TEST_F(Link, BearsAllThreadsAtOnce) {
    connect();
    uint32_t dispatcher = 0;
    ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0), kStatusSuccess);
    TestListener heard;
    heard.onMessage = [&](pelmoMsg*) { heard.texts.clear(); };
    ASSERT_EQ(heard.listen(queue, "S", id), kStatusSuccess);
    const uint32_t transport = id;
    const auto sends = [=] { (void)sendText(transport, "S", "s"); };
    const auto changes = [=, this] {
        TestListener brief;
        (void)brief.listen(queue, "T", transport);
        (void)pelmoTransport_SetDescription(transport, "d");
    };
    const auto repairs = [this] {
        if (fixture.timers() != 0) fixture.fire(fixture.awaitTimer());
        std::this_thread::yield();
    };
    std::vector<std::jthread> threads;
    for (const std::function<void()>& work :
         std::initializer_list<std::function<void()>>{sends, sends, changes, repairs}) {
        threads.emplace_back([work](const std::stop_token& stop) {
            while (!stop.stop_requested())
                work();
        });
    }
    for (size_t connections = 2; connections < 40; ++connections) {
        daemon.awaitAccepted(connections - 1);
        daemon.breakConnections();
        daemon.awaitAccepted(connections);
    }
    EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
    threads.clear();
    heard.end();
    pelmoDispatcher_Destroy(dispatcher);
}

}  // namespace
