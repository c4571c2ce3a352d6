// Network transports and circuits between the calls of applications and the floors that carry
// messages out, which are fakes here.

#include <algorithm>
#include <cstring>

#include "lib/containers/dpa.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/local_bus.h"
#include "tests/support/network_fakes.h"

namespace {

const std::string kOwnInbox = "_INBOX.0A000001.P1F40.GOB.";

struct Network : testing::Test {
    LocalBus bus;
    FakePeers peers;
    FakeDaemon daemon;
    uint32_t queue = makeQueue();
    uint32_t id = kNoId;

    void SetUp() override { make(); }
    void TearDown() override {
        if (id != kNoId) pelmoTransport_Destroy(id);
        EXPECT_EQ(daemon.links(), 0);
    }
    void make(ReliableEndpoint* endpoint = nullptr) {
        daemon.endpoint = endpoint;
        ASSERT_EQ(pelmoTransport_CreateNetwork(&id, "service", nullptr, nullptr), kStatusSuccess);
        (void)daemon.taken();
    }
    void remake(ReliableEndpoint* endpoint) {
        ASSERT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
        make(endpoint);
        (void)peers.taken();
    }
    Transport* record() const { return recordOf<Transport>(id); }

    // Sorted: what the next connection tells its daemon.
    Texts announcedAnew() const {
        uint8_t* subjects = nullptr;
        size_t bytes = 0;
        Id_Enter(&record()->header);
        EXPECT_TRUE(transportListInterest(record(), &subjects, &bytes));
        Id_Leave(&record()->header);
        Texts texts;
        for (size_t at = 0; at < bytes; at += subjectLength(subjects + at)) {
            char text[kSubjectTextBytes];
            texts.emplace_back(subjectToText(text, sizeof text, subjects + at));
        }
        std::free(subjects);
        std::sort(texts.begin(), texts.end());
        return texts;
    }

    // Hands what came from outside to the transport, which owns it.
    void arrive(const std::vector<std::pair<std::string, const char*>>& subjectsAndTexts) const {
        std::vector<pelmoMsg*> batch;
        for (const auto& [subject, text] : subjectsAndTexts) {
            batch.push_back(messageOn(subject.c_str(), text).release());
            EXPECT_EQ(msgCloseEnvelope(batch.back()), kStatusSuccess);
        }
        Transport_DeliverBatch(record(), batch);
        dispatchAll(queue);
    }
};

TEST_F(Network, StopsALinkWhoseCreateFailed) {
    uint32_t other = 0;
    daemon.createAnswer = kStatusWrongVersion;
    EXPECT_EQ(pelmoTransport_CreateNetwork(&other, nullptr, nullptr, nullptr), kStatusWrongVersion);
    EXPECT_EQ(daemon.taken(), Texts{"stop"});
    EXPECT_EQ(daemon.links(), 1);
}

TEST_F(Network, AnnouncesWhatIsListenedTo) {
    const std::string own = kOwnInbox + "7";
    const struct {
        std::string subject;
        pelmoStatus status;
        Texts told;  // over the life of one listener
    } rows[] = {
        {"A.B", kStatusSuccess, {"L A.B", "C A.B"}},
        {"A.>", kStatusSuccess, {"L A.>", "C A.>"}},
        {own, kStatusSuccess, {}},
        {kOwnInbox + "*", kStatusInvalidSubject, {}},
        {"_INBOX.X.Y.7", kStatusInvalidSubject, {}},
        {"_INBOX.X.DAEMON.7", kStatusSuccess, {"L _INBOX.X.DAEMON.7"}},
        {"_INBOX.X.ROUTED.7", kStatusSuccess, {"L _INBOX.X.ROUTED.7"}},
        {"_INBOX.X.Y.ROUTED", kStatusSuccess, {"L _INBOX.X.Y.ROUTED"}},
        {"_INBOX.X.Y.DAEMON", kStatusInvalidSubject, {}},
        {"_INBOX.X.DAEMON.>", kStatusInvalidSubject, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.subject);
        TestListener first;
        TestListener second;
        EXPECT_EQ(first.listen(queue, row.subject.c_str(), id), row.status);
        // A second one isn't news, nor is the first one's end while it stays.
        EXPECT_EQ(second.listen(queue, row.subject.c_str(), id), row.status);
        EXPECT_EQ(announcedAnew(), row.told.empty() ? Texts{} : Texts{row.subject});
        first.end();
        second.end();
        EXPECT_EQ(daemon.taken(), row.told);
    }
    // One that begins while the daemon is told of the last one's end is announced behind that.
    TestListener last(queue, "A", id), next;
    (void)daemon.taken();
    daemon.meanwhile = [&] { EXPECT_EQ(next.listen(queue, "A", id), kStatusSuccess); };
    last.end();
    next.end();
    EXPECT_EQ(daemon.taken(), (Texts{"L A", "C A", "L A", "C A"}));

    ASSERT_EQ(pelmoTransport_SetHidden(id, true), kStatusSuccess);
    const TestListener wild(queue, "_INBOX.X.DAEMON.>", id);
    EXPECT_EQ(sendText(id, "_PM.X"), kStatusSuccess);
    (void)daemon.taken();

    const TestListener left(queue, "A", id);
    EXPECT_EQ(announcedAnew(), (Texts{"A", "_INBOX.X.DAEMON.>"}));
    EXPECT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), (Texts{"L A", "stop", "C A"}));
    id = kNoId;
}

TEST_F(Network, EndsWithWhatItLost) {
    constexpr SendLosses kNone = {};
    constexpr const char* kBy = ": the end of the ";
    constexpr const char* kWithout = "; the other side didn't confirm what it had been sent\n";
    const struct {
        SendLosses byDaemon, byPeers;
        std::vector<std::string> lines;
    } rows[] = {
        {kNone, kNone, {}},
        {{2, 300, false}, kNone, {"connection to the daemon left 2 messages (300 bytes) unsent\n"}},
        {kNone, {1, 70, false}, {"direct road left 1 messages (70 bytes) unsent\n"}},
        {{0, 0, true},
         {5, 0, false},
         {std::string("connection to the daemon left 0 messages (0 bytes) unsent") + kWithout,
          "direct road left 5 messages (0 bytes) unsent\n"}},
    };
    for (const auto& row : rows) {
        remake(peers.endpoint());
        daemon.losses = row.byDaemon;
        peers.losses = row.byPeers;
        testing::internal::CaptureStderr();
        const pelmoStatus status = pelmoTransport_Destroy(id);
        std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, row.lines.empty() ? kStatusSuccess : kStatusDeliveryFailed);
        for (const std::string& line : row.lines) {
            const size_t place = told.find(kBy + line);
            ASSERT_NE(place, std::string::npos) << told;
            told.erase(0, place + std::strlen(kBy) + line.size());
        }
        EXPECT_EQ(told, "");
        daemon.losses = peers.losses = {};
        make();
    }
    EXPECT_EQ(pelmoTransport_DestroyWithin(id, -1), kStatusInvalidArgument);
}

TEST_F(Network, SendsToTheDaemonOrAPeer) {
    daemon.endpoint = peers.endpoint();
    ASSERT_EQ(pelmoTransport_Destroy(id), kStatusSuccess);
    ASSERT_EQ(pelmoTransport_CreateNetwork(&id, "service", nullptr, nullptr), kStatusSuccess);
    EXPECT_EQ(peers.taken(), Texts{"transport " + std::to_string(id)});
    (void)daemon.taken();
    peers.transport = record();
    const struct {
        const char* subject;
        const char* peer;  // null: the daemon's
    } rows[] = {
        {"A.B", nullptr},
        {"_INBOX.0A000001.P1F40.GOB.1", "to a000001:1f40"},
        {"_INBOX.ffffffff.Pffff.1", "to ffffffff:ffff"},
        {"_INBOX.1.P2", "to 1:2"},
        {"_INBOX.0A000001.U1F40.1", nullptr},
        {"_INBOX.0A000001.P.1", nullptr},
        {"_INBOX.0A000001.PX.1", nullptr},
        {"_INBOX.0A000001.P12345.1", nullptr},
        {"_INBOX.0A0000012.P1.1", nullptr},
        {"_INBOX.GOB.P1.1", nullptr},
        {"_INBOX.1", nullptr},
        {"_INBOXES.1.P2", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.subject);
        EXPECT_EQ(sendText(id, row.subject, "x"), kStatusSuccess);
        const bool direct = row.peer != nullptr;
        const Texts told = {std::string(direct ? row.peer : "send") + R"( {text="x"})"};
        EXPECT_EQ(daemon.taken(), direct ? Texts{} : told);
        EXPECT_EQ(peers.taken(), direct ? told : Texts{});
    }
    EXPECT_EQ(sendText(id, "_PM.X"), kStatusInvalidSubject);
    daemon.answer = peers.answer = kStatusIoFailed;
    EXPECT_EQ(sendText(id, "A"), kStatusIoFailed);
    EXPECT_EQ(sendText(id, "_INBOX.1.P2"), kStatusIoFailed);
    remake(nullptr);
    daemon.answer = kStatusSuccess;
    EXPECT_EQ(sendText(id, "_INBOX.1.P2", "x"), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), Texts{R"(send {text="x"})"});
}

// The daemon reports the end of a transport as soon as its link has stopped; a send that meets the
// destroy keeps the endpoint beyond its close.
TEST_F(Network, ClosesItsEndpointFirst) {
    remake(peers.endpoint());
    (void)daemon.taken();
    peers.atClose = [&] {
        EXPECT_EQ(daemon.taken(), Texts{});
        EXPECT_EQ(peers.references, 2) << "the send's and the destroy's";
    };
    const Texts both = {R"(to 1:2 {text="x"})", "close"};
    peers.meanwhile = [&] {
        EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
        EXPECT_TRUE(peers.calls == both && peers.references == 1);
    };
    EXPECT_EQ(sendText(id, "_INBOX.1.P2", "x"), kStatusSuccess);
    EXPECT_TRUE(peers.calls == both && peers.references == 0);
}

TEST_F(Network, SendsVectorsTogetherOrNotAtAll) {
    remake(peers.endpoint());
    const Message a = messageOn("A", "a");
    const Message b = messageOn("B", "b");
    const Message inbox = messageOn("_INBOX.1.P2", "direct");
    const Message reserved = messageOn("_PM.X");
    pelmoMsg* messages[] = {a.get(), inbox.get(), b.get(), reserved.get()};
    EXPECT_EQ(pelmoTransport_Sendv(id, messages, 3), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), Texts{R"(send together {text="a"} {text="b"})"});
    EXPECT_EQ(peers.taken(), Texts{R"(to 1:2 {text="direct"})"});
    // One that can't be sent leaves none, on either road.
    uint32_t taken = 77;
    EXPECT_EQ(pelmoTransport_Sendv(id, messages, 4), kStatusInvalidSubject);
    EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, 4, &taken), kStatusInvalidSubject);
    EXPECT_EQ(taken, 0u);
    // Nor does one that is too long.
    const Message longest = messageOn("C");
    const std::vector<char> much(size_t{64} << 20);
    ASSERT_EQ(pelmoMsg_AddOpaque(longest.get(), "much", much.data(),
                                 static_cast<uint32_t>(much.size()), 0),
              kStatusSuccess);
    messages[3] = longest.get();
    EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, 4, &taken), kStatusInvalidSize);
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(daemon.taken(), Texts{});
    EXPECT_EQ(peers.taken(), Texts{});

    // What was taken is counted in the order in which it leaves.
    EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, 3, &taken), kStatusSuccess);
    EXPECT_EQ(taken, 3u);
    daemon.answer = kStatusInvalidIoSource;
    daemon.takenOnFailure = 1;
    EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, 3, &taken), kStatusInvalidIoSource);
    EXPECT_EQ(taken, 2u);
    daemon.answer = kStatusSuccess;
    peers.answer = kStatusDeliveryFailed;
    (void)daemon.taken();
    EXPECT_EQ(pelmoTransport_SendvTaken(id, messages, 3, &taken), kStatusDeliveryFailed);
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(daemon.taken(), Texts{});
    peers.answer = kStatusSuccess;
}

TEST_F(Network, SendsThroughCircuits) {
    const Message a = messageOn("A", "a");
    const Message b = messageOn("B", "b");
    pelmoMsg* both[] = {a.get(), b.get()};
    const Message bad = messageOn(nullptr);
    pelmoMsg* cut[] = {a.get(), bad.get(), b.get()};
    const uint32_t circuit = peers.makeCircuit(id), local = peers.makeCircuit(kLocal);
    EXPECT_EQ(pelmoTransport_Send(circuit, a.get()), kStatusSuccess);
    EXPECT_EQ(peers.taken(), Texts{R"(send {text="a"})"});
    const Texts together = {R"(together {text="a"})", R"(together {text="b"})"};
    EXPECT_EQ(pelmoTransport_Sendv(circuit, both, 2), kStatusSuccess);
    EXPECT_EQ(peers.taken(), together);
    // A number that is given away and not sent would end a circuit.
    EXPECT_EQ(pelmoTransport_Sendv(circuit, cut, 3), kStatusInvalidSubject);
    EXPECT_EQ(peers.taken(), Texts{});
    EXPECT_EQ(pelmoTransport_Sendv(local, cut, 3), kStatusInvalidSubject);
    EXPECT_EQ(peers.taken(), Texts{together[0]});
    peers.answer = kStatusCircuitNotConnected;
    EXPECT_EQ(pelmoTransport_Sendv(circuit, both, 2), kStatusCircuitNotConnected);
    peers.answer = kStatusSuccess;
    (void)peers.taken();
    EXPECT_EQ(pelmoTransport_Distribute(circuit, messageOn("A", "d").release()), kStatusSuccess);
    EXPECT_EQ(peers.taken(), Texts{R"(deliver {text="d"})"});
    EXPECT_EQ(pelmoTransport_Destroy(local), kStatusSuccess);
    EXPECT_EQ(pelmoTransport_Destroy(circuit), kStatusSuccess);
    EXPECT_EQ(peers.taken().size(), 4u);  // disconnected and destroyed, each
}

TEST_F(Network, DeliversBatches) {
    TestListener all(queue, ">", id);
    const uint32_t other = makeQueue();
    const TestListener wild(other, "A.*", id);
    const TestListener inbox(queue, (kOwnInbox + "1").c_str(), id);
    const TestListener inboxToo(queue, (kOwnInbox + "1").c_str(), id);
    arrive({{"A.B", "1"},
            {"A.B", "2"},
            {"B", "3"},
            {"A.C", "4"},
            {"A.B", "5"},
            {kOwnInbox + "1", "6"},
            {"_INBOX.2.3.4", "7"}});
    dispatchAll(other);
    EXPECT_EQ(all.texts, (Texts{"1", "2", "3", "4", "5"}));  // a wildcard gets no inbox's
    EXPECT_EQ(wild.texts, (Texts{"1", "2", "4", "5"}));
    EXPECT_EQ(inbox.texts, Texts{"6"});
    EXPECT_EQ(inboxToo.texts, Texts{"6"});

    // With one listener the message itself goes on; ">" matches the inbox, but doesn't count.
    for (const char* subject : {"B", "_INBOX.9.DAEMON"}) {
        TestListener sees(other, "_INBOX.9.DAEMON", id);
        const pelmoMsg* seen = nullptr;
        const auto see = [&](pelmoMsg* message) { seen = message; };
        sees.onMessage = see;
        all.onMessage = see;
        pelmoMsg* single = messageOn(subject).release();
        Transport_DeliverBatch(record(), {&single, 1});
        dispatchAll(queue);
        dispatchAll(other);
        EXPECT_EQ(seen, single);
    }
}

TEST_F(Network, DeliversMoreThanABatchHolds) {
    constexpr size_t kMessages = 300;
    const TestListener first(queue, "A", id);
    const TestListener second(queue, "A", id);
    const std::vector<std::pair<std::string, const char*>> many(kMessages, {"A", "x"});
    uint32_t posts = 0;
    ASSERT_EQ(pelmoQueue_SetHook(queue, expectTransportsFree, &posts), kStatusSuccess);
    arrive(many);
    EXPECT_EQ(posts, 2 * kMessages);
    EXPECT_EQ(first.texts.size(), kMessages);
    EXPECT_EQ(second.texts.size(), kMessages);
    ASSERT_EQ(pelmoTransport_SetFirstListenerOnly(id), kStatusSuccess);
    arrive(many);
    EXPECT_EQ(first.texts.size() + second.texts.size(), 3 * kMessages);
}

TEST_F(Network, DropsWhatIsMalformedAndLogsWhatIsUnheard) {
    const TestListener listener(queue, "A", id);
    pelmoMsg* empty = newMessage().release();
    pelmoMsg* unaddressed = messageOn(nullptr).release();
    pelmoMsg* badReturn = newMessage().release();
    ASSERT_EQ(pelmoMsg_AddOpaque(badReturn, "return", "x", 1, 0), kStatusSuccess);
    pelmoMsg* batch[] = {empty, unaddressed, badReturn};
    Transport_DeliverBatch(record(), batch);
    dispatchAll(queue);
    EXPECT_EQ(listener.texts.size(), 0u);

    const auto logs = [&](const char* advisoryClass) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(pelmoTransport_SendAdvisory(id, advisoryClass, "S", "N", nullptr),
                  kStatusSuccess);
        return !testing::internal::GetCapturedStderr().empty();
    };
    EXPECT_TRUE(logs("WARN") && logs("ERROR") && !logs("INFO"));
    ASSERT_EQ(pelmoTransport_SetQuietUnhandled(id), kStatusSuccess);
    EXPECT_FALSE(logs("WARN"));
    EXPECT_EQ(daemon.taken(), Texts{"L A"});  // an advisory never leaves
    EXPECT_EQ(pelmoTransport_Distribute(77777, messageOn("A").release()), kStatusInvalidTransport);
}

TEST_F(Network, DeliversWhatMemoryAllows) {
    const TestListener first(queue, "A", id);
    const TestListener second(queue, "A", id);
    size_t delivered = 0;
    EXPECT_GT(eachAllocationFails([&] {
                  const Message message = messageOn("A");
                  if (message == nullptr) return;
                  pelmoMsg* given = message.get();
                  msgRetain(given);
                  Transport_DeliverBatch(record(), {&given, 1});
                  const size_t failed = allocationsFailed();
                  allocationsHeal();
                  dispatchAll(queue);
                  const size_t now = first.texts.size() + second.texts.size();
                  if (failed == 0) {
                      EXPECT_EQ(now - delivered, 2u);
                  }
                  delivered = now;
              }),
              1u);
}

// Hooks

struct HookLog {
    Transport* transport;
    Texts calls{};
    pelmoStatus answer = kStatusSuccess;
    std::function<void(uint32_t, pelmoMsg**)> act{};

    TransportHook* add(HookKind kind) {
        TransportHook* hook = nullptr;
        EXPECT_EQ(Transport_AddHook(&hook, kind, transport->header.id, run, this), kStatusSuccess);
        return hook;
    }

    static pelmoStatus run(uint32_t id, pelmoMsg** message, void* closure) {
        auto* self = static_cast<HookLog*>(closure);
        self->calls.push_back(message != nullptr ? textOf(*message) : "-");
        EXPECT_TRUE(isFree(self->transport->header.lock));
        if (self->act) self->act(id, message);
        return self->answer;
    }
};

TEST_F(Network, RunsHooksAheadOfSends) {
    HookLog log{record()};
    TransportHook* hook = log.add(kHookSend);
    EXPECT_EQ(sendText(id, "A", "1"), kStatusSuccess);
    log.answer = kStatusNotPermitted;
    EXPECT_EQ(sendText(id, "A", "2"), kStatusNotPermitted);
    log.answer = kStatusSuccess;
    log.act = [](uint32_t, pelmoMsg** message) { *message = messageOn("A", "other").release(); };
    EXPECT_EQ(sendText(id, "A", "3"), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), (Texts{R"(send {text="1"})", R"(send {text="other"})"}));

    // More than fit on the stack; and one that is removed by the first of them.
    for (int i = 0; i < 70; ++i)
        log.add(kHookSend);
    log.act = [&](uint32_t, pelmoMsg**) {
        if (hook == nullptr) return;
        EXPECT_EQ(Transport_RemoveHook(std::exchange(hook, nullptr)), kStatusSuccess);
    };
    for (const size_t count : {71u, 70u}) {
        log.calls.clear();
        EXPECT_EQ(sendText(id, "A", "4"), kStatusSuccess);
        EXPECT_EQ(log.calls, Texts(count, "4"));
    }
}

// By a send's hook: nothing goes out. The destroy's own hooks see the id valid, and then gone.
TEST_F(Network, RunsHooksAroundDestroys) {
    HookLog log{record()}, ends{record()};
    log.add(kHookSend);
    ends.add(kHookDestroyed);
    ends.add(kHookDestroy);
    log.act = [](uint32_t of, pelmoMsg**) {
        EXPECT_EQ(pelmoTransport_Destroy(of), kStatusSuccess);
    };
    ends.act = [&](uint32_t of, pelmoMsg**) {
        const bool valid = Id_Check(of, IdType::kTransport) == kStatusSuccess;
        EXPECT_EQ(valid, ends.calls.size() == 1);
        EXPECT_EQ(pelmoTransport_Destroy(of), kStatusInvalidTransport);  // under way, or over
    };
    EXPECT_EQ(sendText(id, "A", "1"), kStatusSuccess);
    EXPECT_EQ(daemon.taken(), Texts{"stop"});
    EXPECT_EQ(ends.calls, (Texts{"-", "-"}));
    TransportHook* late = nullptr;
    EXPECT_EQ(Transport_AddHook(&late, kHookSend, id, HookLog::run, &log), kStatusInvalidTransport);
    id = kNoId;
}

TEST_F(Network, RunsInboundHooksAtDispatch) {
    HookLog log{record()};
    const TestListener listener(queue, "A", id);
    TransportHook* hook = log.add(kHookInbound);
    log.act = [](uint32_t, pelmoMsg** message) { *message = messageOn("A", "ignored").release(); };
    arrive({{"A", "1"}});
    log.act = nullptr;
    log.answer = kStatusNotPermitted;
    arrive({{"A", "2"}});
    EXPECT_EQ(listener.texts, Texts{"1"});
    EXPECT_EQ(Transport_RemoveHook(hook), kStatusSuccess);
    arrive({{"A", "3"}});
    EXPECT_EQ(listener.texts, (Texts{"1", "3"}));
    EXPECT_EQ(log.calls, (Texts{"1", "2"}));
    EXPECT_GT(eachAllocationFails([&] {
                  TransportHook* one = nullptr;
                  const pelmoStatus status =
                      Transport_AddHook(&one, kHookReconnect, id, HookLog::run, &log);
                  EXPECT_EQ(status, allocationsFailed() ? kStatusNoMemory : kStatusSuccess);
              }),
              1u);
}

}  // namespace
