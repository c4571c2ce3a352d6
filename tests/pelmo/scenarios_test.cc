// Each allocation of each scenario fails in turn, once and for good. Whatever fails, the status is
// success or no memory, nothing is left over, and the same work succeeds right afterwards.

#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "lib/transport/reliable/reliable_endpoint.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/circuit_fixture.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/link_fixture.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/stream_run.h"

namespace {

// What one scenario does again and again. The members of one that derives from it hold what exists
// over all runs (built before the first) and what a run passes on to its end.
struct Scenario : NoCopy {
    virtual ~Scenario() = default;

    virtual void run() = 0;  // the work under failing allocations

    // With memory again: checks that what the run made is sound, and takes all of it back.
    virtual void end() = 0;

    // Notes what a step of the run answers; true for success.
    bool did(pelmoStatus answer) {
        if (status == kStatusSuccess) status = answer;
        return answer == kStatusSuccess;
    }

    pelmoStatus status = kStatusSuccess;  // of the run: the first that isn't success
    // Some failures are made good or reported elsewhere: the status may be success even so.
    bool hidesFailures = false;
    bool anyDescriptors = false;  // the test's own threads open and close some
    std::vector<pelmoStatus> statuses = {kStatusNoMemory};  // that a failure may give
};

struct Row {
    const char* name;
    size_t leastFailures;  // so many allocations at least, or the scenario isn't what it was
    std::unique_ptr<Scenario> (*make)();
    const char* log = "";  // what it logs among others
};

template <typename Kind>
std::unique_ptr<Scenario> make() {
    return std::make_unique<Kind>();
}

// Sets and lists of the event manager are full, so that each has to grow, and one id is free.
struct EventScenario : Scenario {
    EventScenario() {
        for (const SocketPair& pair : pairs)
            EXPECT_EQ(watch(pair, &id), kStatusSuccess);
        for (int i = 0; i < 8; ++i)
            (void)stand.timer(1e9, ignoreEvent);
        idCounter.first = idCounter.last = counter.previous + 1;
        statuses.push_back(kStatusSocketLimit);
    }
    ~EventScenario() override { idCounter = counter; }

    void run() override {
        id = kNoId;
        did(create());
    }
    void end() override {
        EXPECT_EQ(id != kNoId, status == kStatusSuccess);
        if (id != kNoId) destroy();
        EXPECT_EQ(stand.fire(1e6), 0u);
    }
    virtual pelmoStatus create() = 0;
    virtual void destroy() { pelmoEvent_DestroyEx(id, nullptr); }

    pelmoStatus watch(const SocketPair& pair, uint32_t* out) const {
        return pelmoEvent_CreateIO(out, stand.queue, ignoreEvent, pair.ends[0], kIoRead, nullptr);
    }

    const SocketPair pairs[63];  // the wake-up pair's is the 64th
    const EventStand stand;
    const IdCounter counter = idCounter;
    uint32_t id = kNoId;
};

struct Timer : EventScenario {
    pelmoStatus create() override {
        return pelmoEvent_CreateTimer(&id, stand.queue, ignoreEvent, 1, nullptr);
    }
};

struct IoEvent : EventScenario {
    pelmoStatus create() override { return watch(one, &id); }

    const SocketPair one;
};

struct Dispatcher : EventScenario {
    pelmoStatus create() override { return pelmoDispatcher_CreateEx(&id, stand.queue, -1.0); }
    void destroy() override { pelmoDispatcher_Destroy(id); }
};

struct NewGroup : EventScenario {
    pelmoStatus create() override { return pelmoQueueGroup_Create(&id); }
    void destroy() override { pelmoQueueGroup_Destroy(id); }
};

// A name that the queue would own stays the caller's if there is no queue.
struct NewQueue : EventScenario {
    pelmoStatus create() override {
        char* const name = strdup("given away");
        const pelmoStatus made = Queue_Create(&id, kNoId, name, true, false);
        if (made == kStatusSuccess) return made;
        EXPECT_STREQ(name, "given away");
        std::free(name);
        return made;
    }
    void destroy() override { pelmoQueue_DestroyEx(id, nullptr, nullptr); }
};

struct Tracing : Scenario {
    void run() override { did(Tracing_Start("RECV=A.B,RECV=A.>", nullptr, nullptr)); }
    void end() override {
        EXPECT_EQ(traceOps.on, status == kStatusSuccess ? 1U : 0U);
        Tracing_Stop();
        Tracing_Clear();
        logSetUtcStamp(false);
    }

    const RuntimeTables tables;
};

// Five queues in four groups: either side's list has to grow. A queue is in a group on both sides
// or on neither.
struct Groups : Scenario {
    void run() override {
        for (const uint32_t group : groups) {
            for (const uint32_t queue : queues)
                did(pelmoQueueGroup_Add(group, queue));
        }
    }
    void end() override {
        size_t pairs = 0;
        for (uint32_t& group : groups) {
            for (const uint32_t queue : queues) {
                const std::vector<uint32_t> ofGroup = idsIn(recordOf<QueueGroup>(group)->queues);
                const std::vector<uint32_t> ofQueue = idsIn(recordOf<Queue>(queue)->groups);
                const auto in = std::ranges::count(ofGroup, queue);
                EXPECT_EQ(std::ranges::count(ofQueue, group), in);
                pairs += static_cast<size_t>(in);
            }
            pelmoQueueGroup_Destroy(std::exchange(group, makeGroup()));
        }
        EXPECT_EQ(pairs == 20, status == kStatusSuccess);
        for (uint32_t& queue : queues)
            pelmoQueue_DestroyEx(std::exchange(queue, makeQueue()), nullptr, nullptr);
    }

    const RuntimeTables tables;
    uint32_t queues[5] = {makeQueue(), makeQueue(), makeQueue(), makeQueue(), makeQueue()};
    uint32_t groups[4] = {makeGroup(), makeGroup(), makeGroup(), makeGroup()};
};

// Two listeners, messages that both match, for which the rings of their inboxes and of their queue
// have to grow, and an advisory. Either listener gets all of a message or none; what can't be
// queued is dropped from the inbox too.
struct Send : Scenario {
    static constexpr size_t kMessages = 20;

    void run() override {
        did(first.listen(queue, "A.B"));
        did(second.listen(queue, "A.*"));
        sent = 0;
        for (size_t i = 0; i < kMessages; ++i)
            sent += did(pelmoTransport_Send(kLocal, message.get())) ? 1 : 0;
        did(pelmoTransport_SendAdvisory(kLocal, "INFO", "S", "N", "text"));
    }
    void end() override {
        size_t listening = 0, received = 0;
        const size_t queued = countOf(queue);
        dispatchAll(queue);
        for (TestListener* listener : {&first, &second}) {
            if (listener->event == kNoId) continue;
            ++listening;
            received += std::exchange(listener->texts, {}).size();
            EXPECT_EQ(recordOf<Event>(listener->event)->listener.inbox->count, 0u);
            listener->end();
        }
        EXPECT_EQ(received, queued);
        EXPECT_LE(received, listening * kMessages);
        EXPECT_GE(received, listening * sent);
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A.B"), 0u);
        pelmoQueue_DestroyEx(std::exchange(queue, makeQueue()), nullptr, nullptr);
    }

    const LocalBus bus;
    uint32_t queue = makeQueue();
    const Message message = messageOn("A.B");
    TestListener first, second;
    size_t sent = 0;
};

// The answer comes from the request queue's hook. Without memory for it the request times out.
struct Request : Scenario {
    Request() {
        server.onMessage = [](pelmoMsg* request) {
            const Message answer = messageOn(nullptr, "y");
            if (answer != nullptr) (void)pelmoTransport_SendReply(kLocal, answer.get(), request);
        };
        const auto dispatch = [](uint32_t id, void*) { (void)pelmoQueue_TimedDispatch(id, 0); };
        EXPECT_EQ(pelmoQueue_SetHook(queue, dispatch, nullptr), kStatusSuccess);
        statuses.push_back(kStatusTimeout);
    }
    void run() override {
        const Message request = messageOn("A");
        did(request == nullptr ? kStatusNoMemory
                               : pelmoTransport_SendRequest(kLocal, request.get(), &reply, 0));
    }
    void end() override {
        EXPECT_EQ(status == kStatusSuccess, reply != nullptr);
        if (reply != nullptr) pelmoMsg_Destroy(std::exchange(reply, nullptr));
        dispatchAll(queue);
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "_INBOX.>"), 0u);
        Held<Transport> held;
        EXPECT_EQ(held.findLocked(kLocal), kStatusSuccess);
        EXPECT_EQ(dict32Count(held->requestQueues), 0u);
        EXPECT_LE(held->spareQueues->count, 1u);
    }

    const LocalBus bus;
    const uint32_t queue = makeQueue();
    TestListener server{queue, "A"};
    pelmoMsg* reply = nullptr;
};

// The library, which this process has opened before. A close that lacks memory succeeds even so.
struct CloseOpen : Scenario {
    CloseOpen() {
        hidesFailures = true;
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
    }
    ~CloseOpen() override { pelmo_Close(); }
    void run() override {
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        did(pelmo_Open());
    }
    void end() override {
        EXPECT_EQ(libraryIsOpen(), status == kStatusSuccess);
        if (!libraryIsOpen()) {
            EXPECT_EQ(pelmo_Close(), kStatusNotInitialized);
            EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        }
        uint32_t queue = kNoId, timer = kNoId;
        EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateTimer(&timer, queue, ignoreEvent, 0.001, nullptr),
                  kStatusSuccess);
    }
};

// Both ends are made and connect, or neither. The test dispatches the work queue.
struct Circuits : Scenario, CircuitFixture {
    Circuits() { hidesFailures = true; }
    void TestBody() override {}

    void run() override {
        const char* subject = nullptr;
        if (did(vcCreateAccept(&accepting, &subject, kLocal)) &&
            did(vcCreateConnect(&connecting, subject, kLocal)))
            work();
    }
    void end() override {
        if (status == kStatusSuccess) work();
        const CircuitState state = stateOf(connecting);
        EXPECT_TRUE(state == CircuitState::kConnected || allocationsFailed() != 0);
        if (state == CircuitState::kConnected) {
            EXPECT_EQ(stateOf(accepting), state);
        }
        destroy();
    }
    void destroy() {
        for (uint32_t* circuit : {&accepting, &connecting})
            pelmoTransport_Destroy(std::exchange(*circuit, kNoId));
        work();
    }

    uint32_t accepting = kNoId, connecting = kNoId;
};

// What a send promised comes, or the circuit ends: a gap doesn't go unseen.
struct CircuitSends : Circuits {
    CircuitSends() { connect(); }
    void run() override {
        pelmoMsg* both[] = {two.get(), three.get()};
        if (did(pelmoTransport_Send(connecting, one.get()))) promised = {"1"};
        if (did(pelmoTransport_Sendv(connecting, both, 2)))
            promised.insert(promised.end(), {"2", "3"});
        settle();
    }
    void end() override {
        if (sendText(connecting, "A", "4") == kStatusSuccess) promised.emplace_back("4");
        settle();
        if (stateOf(accepting) == CircuitState::kConnected) {
            EXPECT_TRUE(std::ranges::includes(listener.texts, promised));
        } else {
            EXPECT_NE(allocationsFailed(), 0u);
            // Without memory for the farewell the other end misses the heartbeats.
            for (int tick = 0; tick < 100 && stateOf(connecting) == CircuitState::kConnected;
                 ++tick)
                vcTick(connecting);
            EXPECT_EQ(stateOf(connecting), CircuitState::kDisconnected);
        }
        listener.end();
        destroy();
        connect();
    }
    void connect() {
        status = kStatusSuccess;
        Circuits::run();
        EXPECT_EQ(status, kStatusSuccess);
        EXPECT_EQ(listener.listen(queue, "A", accepting), kStatusSuccess);
        promised.clear();
        listener.texts.clear();
    }

    const Message one = messageOn("A", "1"), two = messageOn("A", "2"), three = messageOn("A", "3");
    Texts promised;
    TestListener listener;
};

// A queue over a connection reads one message, holds back what the connection doesn't take, and
// closes. What isn't read is reported.
struct Streams : Scenario {
    Streams() {
        hidesFailures = true;
        statuses.push_back(kStatusInvalidIoSource);  // a read without memory ends the connection
        EXPECT_EQ(Queue_Create(nullptr, kTimerQueueId, "timers", false, false), kStatusSuccess);
    }
    void run() override {
        reads = errors = closes = 0;
        Socket* client = nullptr;
        if (socketCreateClient(&client, 0, kFirstIoQueueId, false) != kSocketDone) {
            did(kStatusNoMemory);
            return;
        }
        socketSetMode(client, SocketMode::kBlocking);
        const bool connects = socketConnect(client, kLoopbackHost, listener.port) == kSocketDone;
        pollfd entry{.fd = listener.handle.number(), .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, 0) > 0) peer = listener.take();
        if (!connects) {
            socketDestroy(client);
            did(kStatusNoMemory);
            return;
        }
        if (!did(ipqCreate(&ipq, nullptr, kFirstIoQueueId, client))) return;
        const auto fail = [](Ipq*, void* self) { ++static_cast<Streams*>(self)->errors; };
        EXPECT_EQ(ipqSetErrorCallback(ipq, fail, this), kStatusSuccess);
        const int bytes = 4096;
        setsockopt(socketHandle(ipq->socket), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        did(ipqSetAgeCheck(ipq, true, 1, 0, nullptr, nullptr));
        did(ipqSetBatchMode(ipq, 1));
        did(ipqSetReadCallback(ipq, read, this));
        sendText(peer.number(), unit);
        passes();
        const Message message = messageOn("A", unit.c_str());
        for (int i = 0; i < 60 && status == kStatusSuccess; ++i)
            did(message != nullptr ? ipqSend(ipq, message.get(), false) : kStatusNoMemory);
    }
    void end() override {
        if (ipq != nullptr) {
            EXPECT_TRUE(status != kStatusSuccess || reads + errors != 0);
            (void)ipqClose(std::exchange(ipq, nullptr), false, [](void* self) {
                if (self != nullptr) ++static_cast<Streams*>(self)->closes;
            });
            passes();
            EXPECT_EQ(closes, 1);
        }
        peer.shut();
    }
    void passes() const {
        for (int i = 0; i < 3; ++i)
            stand.ioPass();
        dispatchAll(kTimerQueueId);
    }
    static void read(Ipq*, std::span<pelmoMsg* const> batch, void* self) {
        for (pelmoMsg* message : batch)
            msgRelease(message);
        static_cast<Streams*>(self)->reads += static_cast<int>(batch.size());
    }

    const EventStand stand;
    const LoopbackListener listener;
    const std::string unit = streamUnit(5'000, 'a');
    OwnHandle peer;
    Ipq* ipq = nullptr;
    int reads = 0, errors = 0, closes = 0;
};

// Two datagram endpoints. What one accepted, the other gets.
struct Endpoints : Scenario {
    Endpoints() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(open(&steady), kStatusSuccess);
    }
    ~Endpoints() override {
        close(steady);
        pelmo_Close();
    }
    pelmoStatus open(ReliableEndpoint** out) {
        return ReliableEndpoint_Open(
            out, kLoopbackHost, 0, onData, [](bool, uint32_t, uint16_t, uint64_t, uintptr_t) {},
            reinterpret_cast<uintptr_t>(this));
    }
    void run() override {
        const Message message = messageOn("A", std::string(3000, 'x').c_str());
        did(message != nullptr ? open(&endpoint) : kStatusNoMemory);
        if (status != kStatusSuccess) return;
        pelmoMsg* const one = message.get();
        did(ReliableEndpoint_Send(endpoint, kLoopbackHost, ReliableEndpoint_Port(steady), {&one, 1},
                                  false));
    }
    void end() override {
        if (status == kStatusSuccess) ++sent;
        EXPECT_TRUE(within(20, [&] { return taken == sent; })) << taken << " of " << sent;
        if (endpoint != nullptr) close(std::exchange(endpoint, nullptr));
    }
    static void close(ReliableEndpoint* closed) {
        EndpointUnsent unsent = {};
        EXPECT_TRUE(ReliableEndpoint_Close(closed, 0, &unsent));
    }
    static void onData(uint32_t, Dpa* messages, uintptr_t self) {
        for (uint32_t i = 0; i < messages->count; ++i)
            msgRelease(static_cast<pelmoMsg*>(messages->items[i]));
        reinterpret_cast<Endpoints*>(self)->taken += messages->count;
    }

    ReliableEndpoint *steady = nullptr, *endpoint = nullptr;
    std::atomic<size_t> taken = 0;
    size_t sent = 0;
};

// A header that can't be written leaves the log open without it.
struct LogFile : Scenario {
    LogFile() {
        hidesFailures = true;
        statuses.push_back(kStatusInitFailed);
    }
    void run() override { did(logOpen(folder.path("log").c_str(), 0, 0, "head")); }
    void end() override {
        logClose();
        EXPECT_EQ(readFile(folder.path("log")).empty(), allocationsFailed() != 0);
        unlink(folder.path("log").c_str());
    }

    const Folder folder;
    const RuntimeTables tables;
};

constexpr const char* kNoIdLog = "Out of memory trying to set an Id";

struct Connected : Scenario {
    Connected() {
        EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
        anyDescriptors = true;  // the daemon has one of each connection
    }
    ~Connected() override { destroy(); }

    pelmoStatus connect() {
        return pelmoTransport_CreateNetwork(&id, nullptr, nullptr, daemon.specification().c_str());
    }
    void destroy() {
        if (id != kNoId) {
            EXPECT_EQ(pelmoTransport_Destroy(std::exchange(id, kNoId)), kStatusSuccess);
        }
        daemon.awaitOpen(0);
        EXPECT_EQ(library.timers(), 0u);
    }

    LinkFixture library;
    TestDaemon daemon;
    uint32_t queue = kNoId;
    uint32_t id = kNoId;
};

// A handshake without memory is one that fails.
struct Connect : Connected {
    Connect() { statuses = {kStatusNoMemory, kStatusInitFailed, kStatusDaemonNotConnected}; }
    void run() override {
        TransportHook* hook = nullptr;
        if (did(connect())) did(Transport_AddHook(&hook, kHookReconnect, id, nullptr, nullptr));
    }
    void end() override {
        EXPECT_TRUE(id != kNoId || status != kStatusSuccess);
        destroy();
    }
};

// The test's thread runs the timer of the next connection. Once there is memory, what is listened
// to is announced to the daemon again, once.
struct Repair : Connected {
    Repair() {
        hidesFailures = true;
        EXPECT_EQ(connect(), kStatusSuccess);
        EXPECT_EQ(listener.listen(queue, "A", id), kStatusSuccess);
    }
    ~Repair() override { listener.end(); }
    void run() override {
        (void)daemon.taken();
        daemon.breakConnections();
        library.fire(library.awaitTimer());
    }
    void end() override {
        while (library.timers() != 0)
            library.fire(library.awaitTimer());
        EXPECT_EQ(sendText(id, "B", "up"), kStatusSuccess);
        // A break that memory brings late may have begun the next connection already.
        const std::string up = R"(B {text="up"})";
        const Texts taken = daemon.await(up);
        const auto last = std::find(taken.begin(), taken.end(), up);
        ASSERT_GE(last - taken.begin(), 2);
        EXPECT_EQ(std::count(last - 2, last, "L A"), 1);
        library.now = library.now + 100;
        dispatchAll(queue);
    }

    TestListener listener;
};

const Row kRows[] = {
    {"Timer", 3, make<Timer>, kNoIdLog},
    {"IoEvent", 3, make<IoEvent>, kNoIdLog},
    {"Dispatcher", 3, make<Dispatcher>, kNoIdLog},
    {"NewGroup", 3, make<NewGroup>, kNoIdLog},
    {"NewQueue", 3, make<NewQueue>, "Out of memory trying to set a global Id"},
    {"Tracing", 3, make<Tracing>},
    {"Groups", 8, make<Groups>},
    {"Send", 30, make<Send>},
    {"Request", 10, make<Request>},
    {"CloseOpen", 22, make<CloseOpen>},
    {"Connect", 20, make<Connect>},
    {"Repair", 10, make<Repair>},
    {"Circuits", 20, make<Circuits>},
    {"CircuitSends", 2, make<CircuitSends>},
    {"Streams", 30, make<Streams>},
    {"Endpoints", 6, make<Endpoints>},
    {"LogFile", 4, make<LogFile>},
};

struct WithoutMemory : testing::TestWithParam<Row> {};

TEST_P(WithoutMemory, LeavesNothingAndSucceedsNextTime) {
    testing::internal::CaptureStderr();
    const std::unique_ptr<Scenario> scenario = GetParam().make();
    // Whether an allocation failed.
    const auto runOnce = [&](size_t after, bool forGood) {
        scenario->status = kStatusSuccess;
        {
            const FailAlloc fail{.after = after, .forGood = forGood};
            scenario->run();
        }
        const bool failed = allocationsFailed() != 0;
        const pelmoStatus status = scenario->status;
        scenario->end();
        const auto known = std::ranges::count(scenario->statuses, status);
        EXPECT_TRUE(status == kStatusSuccess || (failed && known != 0)) << status;
        EXPECT_TRUE(status != kStatusSuccess || !failed || scenario->hidesFailures);
        return failed;
    };
    runOnce(kNeverFails, false);  // what the first use keeps isn't left over
    const Leftovers before = leftovers();
    size_t failures = 0;
    for (const bool forGood : {false, true}) {
        for (size_t after = 0; !HasFailure() && runOnce(after, forGood); ++after, ++failures) {
            SCOPED_TRACE(std::to_string(after) + (forGood ? " for good" : " once"));
            runOnce(kNeverFails, false);
            EXPECT_EQ(leftoversOnceThey(before, scenario->anyDescriptors), before);
        }
    }
    EXPECT_GE(failures, GetParam().leastFailures);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(GetParam().log), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, WithoutMemory, testing::ValuesIn(kRows), [](const auto& row) {
    return std::string(row.param.name);
});

}  // namespace
