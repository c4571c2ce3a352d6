// Each allocation of each scenario fails in turn, once and for good. Whatever fails, the status is
// success or no memory, nothing is left over, and the same work succeeds right afterwards.

#include <cstdlib>
#include <cstring>

#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "lib/runtime/dispatcher.h"
#include "lib/runtime/tracing.h"
#include "lib/transport/ipq/ipq_internal.h"
#include "lib/transport/reliable/reliable_endpoint.h"
#include "lib/transport/socket/socket_internal.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/circuit_fixture.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/link_fixture.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/stream_run.h"
#include "tests/support/test.h"
#include "tests/support/test_daemon.h"

namespace {

// What one scenario does again and again. The members of one that derives from it hold what exists
// over all runs (built before the first) and what a run passes on to its end.
struct Scenario : NoCopy {
    virtual ~Scenario() = default;

    // The work under failing allocations. Returns the first status that isn't success.
    virtual pelmoStatus run() = 0;

    // With memory again: checks that what the run made is sound, and takes all of it back.
    virtual void end(pelmoStatus status) = 0;

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

    pelmoStatus run() override {
        id = kNoId;
        return create();
    }
    void end(pelmoStatus status) override {
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
        const pelmoStatus status = Queue_Create(&id, kNoId, name, true, false);
        if (status == kStatusSuccess) return status;
        EXPECT_STREQ(name, "given away");
        std::free(name);
        return status;
    }
    void destroy() override { pelmoQueue_DestroyEx(id, nullptr, nullptr); }
};

struct Tracing : Scenario {
    pelmoStatus run() override { return Tracing_Start("RECV=A.B,RECV=A.>", nullptr, nullptr); }
    void end(pelmoStatus status) override {
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
    pelmoStatus run() override {
        pelmoStatus first = kStatusSuccess;
        for (const uint32_t group : groups) {
            for (const uint32_t queue : queues) {
                const pelmoStatus status = pelmoQueueGroup_Add(group, queue);
                if (first == kStatusSuccess) first = status;
            }
        }
        return first;
    }
    void end(pelmoStatus status) override {
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

// The rings of the inbox and of the queue have to grow. What can't be queued is dropped from both.
struct Posts : Scenario {
    Posts() {
        for (pelmoMsg*& message : messages)
            message = messageFor(0);
    }
    ~Posts() override {
        for (pelmoMsg* message : messages)
            msgRelease(message);
    }
    pelmoStatus run() override {
        pelmoStatus first = kStatusSuccess;
        posted = 0;
        for (pelmoMsg* message : messages) {
            pelmoStatus status = kStatusNoMemory;
            if (EntryRing_PushBack(event->event->listener.inbox, message)) {
                msgRetain(message);
                status = Event_Post(event->event);
            }
            if (status == kStatusSuccess) ++posted;
            if (first == kStatusSuccess) first = status;
        }
        return first;
    }
    void end(pelmoStatus) override {
        EXPECT_EQ(countOf(queue), posted);
        EXPECT_EQ(event->event->listener.inbox->count, 0u);
        event.reset();
        dispatchAll(queue);
        pelmoQueue_DestroyEx(std::exchange(queue, makeQueue()), nullptr, nullptr);
        event = std::make_unique<TestEvent>(kEventListener, queue);
    }

    const RuntimeTables tables;
    uint32_t queue = makeQueue();
    std::unique_ptr<TestEvent> event = std::make_unique<TestEvent>(kEventListener, queue);
    pelmoMsg* messages[20];
    uint32_t posted = 0;
};

// Two listeners, a message that both match, and an advisory. Either listener gets all of it or
// none.
struct Send : Scenario {
    pelmoStatus run() override {
        const pelmoStatus listens[] = {first.listen(queue, "A.B"), second.listen(queue, "A.*")};
        sent = pelmoTransport_Send(kLocal, message.get());
        const pelmoStatus advised = pelmoTransport_SendAdvisory(kLocal, "INFO", "S", "N", "text");
        for (const pelmoStatus status : {listens[0], listens[1], sent, advised}) {
            if (status != kStatusSuccess) return status;
        }
        return kStatusSuccess;
    }
    void end(pelmoStatus) override {
        dispatchAll(queue);
        const size_t listening = (first.event != kNoId ? 1 : 0) + (second.event != kNoId ? 1 : 0);
        const size_t received = first.texts.size() + second.texts.size();
        EXPECT_LE(received, listening);
        if (sent == kStatusSuccess) {
            EXPECT_EQ(received, listening);
        }
        for (TestListener* listener : {&first, &second}) {
            listener->end();
            listener->texts.clear();
        }
        EXPECT_EQ(pelmoTransport_HasInterest(kLocal, "A.B"), 0u);
    }

    const LocalBus bus;
    const uint32_t queue = makeQueue();
    const Message message = messageOn("A.B");
    TestListener first, second;
    pelmoStatus sent = kStatusSuccess;
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
    pelmoStatus run() override {
        const Message request = messageOn("A");
        if (request == nullptr) return kStatusNoMemory;
        return pelmoTransport_SendRequest(kLocal, request.get(), &reply, 0);
    }
    void end(pelmoStatus status) override {
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

// The library, which this process has opened before.
struct OpenClose : Scenario {
    OpenClose() {
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        hidesFailures = true;
    }
    pelmoStatus run() override { return pelmo_Open(); }
    void end(pelmoStatus status) override {
        EXPECT_EQ(libraryIsOpen(), status == kStatusSuccess);
        EXPECT_EQ(pelmo_Close(), status == kStatusSuccess ? status : kStatusNotInitialized);
    }
};

// Only the close lacks memory, and it succeeds even so.
struct CloseAlone : Scenario {
    CloseAlone() {
        hidesFailures = true;
        end(kStatusSuccess);
    }
    pelmoStatus run() override { return pelmo_Close(); }
    void end(pelmoStatus) override {
        EXPECT_FALSE(libraryIsOpen());
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        uint32_t queue = kNoId, timer = kNoId;
        EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_CreateTimer(&timer, queue, ignoreEvent, 0.001, nullptr),
                  kStatusSuccess);
    }
    ~CloseAlone() override { pelmo_Close(); }
};

// Both ends are made and connect, or neither. The test dispatches the work queue.
struct Circuits : Scenario, CircuitFixture {
    Circuits() { hidesFailures = true; }
    void TestBody() override {}

    pelmoStatus run() override {
        const char* subject = nullptr;
        pelmoStatus status = vcCreateAccept(&accepting, &subject, kLocal);
        if (status == kStatusSuccess) status = vcCreateConnect(&connecting, subject, kLocal);
        if (status == kStatusSuccess) work();
        return status;
    }
    void end(pelmoStatus status) override {
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
    pelmoStatus run() override {
        pelmoMsg* both[] = {two.get(), three.get()};
        const pelmoStatus first = pelmoTransport_Send(connecting, one.get());
        if (first == kStatusSuccess) promised = {"1"};
        const pelmoStatus second = pelmoTransport_Sendv(connecting, both, 2);
        if (second == kStatusSuccess) promised.insert(promised.end(), {"2", "3"});
        settle();
        return first != kStatusSuccess ? first : second;
    }
    void end(pelmoStatus) override {
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
        EXPECT_EQ(Circuits::run(), kStatusSuccess);
        EXPECT_EQ(listener.listen(queue, "A", accepting), kStatusSuccess);
        promised.clear();
        listener.texts.clear();
    }

    const Message one = messageOn("A", "1"), two = messageOn("A", "2"), three = messageOn("A", "3");
    Texts promised;
    TestListener listener;
};

// A server, a client that connects to it, and the server's end of that, which reads.
struct Sockets : Scenario {
    pelmoStatus run() override {
        Socket*& server = made[0];
        Socket*& client = made[1];
        Socket*& accepted = made[2];
        const auto ignore = [](Socket*, void*) {};
        bool all = socketCreateServer(&server, 0, kFirstIoQueueId, false) == kSocketDone &&
                   socketBind(server, kLoopbackHost, 0, false) == kSocketDone &&
                   socketListen(server) == kSocketDone &&
                   socketCreateClient(&client, 0, kFirstIoQueueId, false) == kSocketDone;
        if (all) {
            const SocketCode code = socketConnect(client, kLoopbackHost, socketBoundPort(server));
            all = code == kSocketDone || code == kSocketWouldBlock;
        }
        uint32_t bytes = 0;
        char byte = 'x';
        all = all && socketOnWritable(client, ignore, nullptr) == kStatusSuccess &&
              socketWaitConnected(client, -1) == kStatusSuccess &&
              socketAccept(server, &accepted, kFirstIoQueueId) == kSocketDone &&
              socketWrite(client, &byte, 1, &bytes) == kSocketDone &&
              socketOnReadable(accepted, ignore, nullptr) == kStatusSuccess &&
              socketSetMinRead(accepted, 1) == kStatusSuccess &&
              socketPeek(accepted, &byte, 1, &bytes) != kSocketNoBuffers &&
              socketSetQueue(accepted, stand.queue) == kSocketDone;
        return all ? kStatusSuccess : kStatusNoMemory;
    }
    void end(pelmoStatus) override {
        for (Socket*& one : made) {
            if (one != nullptr) socketDestroy(one);
            one = nullptr;
        }
    }

    const EventStand stand;
    Socket* made[3] = {};
};

// A queue over a connection reads one message, holds back what the connection doesn't take, and
// closes. What isn't read is reported.
struct Streams : Scenario {
    Streams() {
        hidesFailures = true;
        statuses.push_back(kStatusInvalidIoSource);  // a read without memory ends the connection
        EXPECT_EQ(Queue_Create(nullptr, kTimerQueueId, "timers", false, false), kStatusSuccess);
    }
    pelmoStatus run() override {
        reads = errors = closes = 0;
        Socket* client = nullptr;
        if (socketCreateClient(&client, 0, kFirstIoQueueId, false) != kSocketDone) {
            return kStatusNoMemory;
        }
        socketSetMode(client, SocketMode::kBlocking);
        const bool connects = socketConnect(client, kLoopbackHost, listener.port) == kSocketDone;
        pollfd entry{.fd = listener.handle.number(), .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, 0) > 0) peer = listener.take();
        if (!connects) {
            socketDestroy(client);
            return kStatusNoMemory;
        }
        pelmoStatus status = ipqCreate(&ipq, nullptr, kFirstIoQueueId, client);
        if (status != kStatusSuccess) return status;
        EXPECT_EQ(ipqSetErrorCallback(
                      ipq, [](Ipq*, void* self) { ++static_cast<Streams*>(self)->errors; }, this),
                  kStatusSuccess);
        const int bytes = 4096;
        setsockopt(socketHandle(ipq->socket), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        const pelmoStatus steps[] = {ipqSetAgeCheck(ipq, true, 1, 0, nullptr, nullptr),
                                     ipqSetBatchMode(ipq, 1), ipqSetReadCallback(ipq, read, this)};
        for (const pelmoStatus step : steps) {
            if (status == kStatusSuccess) status = step;
        }
        sendText(peer.number(), unit);
        passes();
        const Message message = messageOn("A", unit.c_str());
        for (int i = 0; i < 60 && status == kStatusSuccess; ++i)
            status = message != nullptr ? ipqSend(ipq, message.get(), false) : kStatusNoMemory;
        return status;
    }
    void end(pelmoStatus status) override {
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
    pelmoStatus run() override {
        const pelmoStatus status = open(&endpoint);
        const Message message = messageOn("A", std::string(3000, 'x').c_str());
        if (status != kStatusSuccess) return status;
        if (message == nullptr) return kStatusNoMemory;
        pelmoMsg* const one = message.get();
        return ReliableEndpoint_Send(endpoint, kLoopbackHost, ReliableEndpoint_Port(steady),
                                     {&one, 1}, false);
    }
    void end(pelmoStatus status) override {
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

    ReliableEndpoint* steady = nullptr;
    ReliableEndpoint* endpoint = nullptr;
    std::atomic<size_t> taken = 0;
    size_t sent = 0;
};

// A header that can't be written leaves the log open without it.
struct LogFile : Scenario {
    LogFile() {
        hidesFailures = true;
        statuses.push_back(kStatusInitFailed);
    }
    pelmoStatus run() override { return logOpen(folder.path("log").c_str(), 0, 0, "head"); }
    void end(pelmoStatus) override {
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
    pelmoStatus run() override {
        const pelmoStatus status = connect();
        if (status != kStatusSuccess) return status;
        TransportHook* hook = nullptr;
        return Transport_AddHook(&hook, kHookReconnect, id, nullptr, nullptr);
    }
    void end(pelmoStatus status) override {
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
    pelmoStatus run() override {
        (void)daemon.taken();
        daemon.breakConnections();
        library.fire(library.awaitTimer());
        return kStatusSuccess;
    }
    void end(pelmoStatus) override {
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
    {"Posts", 2, make<Posts>},
    {"Send", 10, make<Send>},
    {"Request", 10, make<Request>},
    {"OpenClose", 20, make<OpenClose>},
    {"CloseAlone", 2, make<CloseAlone>},
    {"Connect", 20, make<Connect>},
    {"Repair", 10, make<Repair>},
    {"Circuits", 20, make<Circuits>},
    {"CircuitSends", 2, make<CircuitSends>},
    {"Sockets", 10, make<Sockets>},
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
        pelmoStatus status;
        {
            const FailAlloc fail{.after = after, .forGood = forGood};
            status = scenario->run();
        }
        const bool failed = allocationsFailed() != 0;
        scenario->end(status);
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
