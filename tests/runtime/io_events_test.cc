#include "lib/runtime/io_events.h"

#include <sys/eventfd.h>

#include "lib/runtime/event_manager.h"
#include "lib/runtime/socket_error.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

using Fired = std::vector<uint32_t>;

struct IoEvents : testing::Test {
    uint32_t watch(uint32_t queue, int source, uint32_t condition = kIoRead) {
        uint32_t event = kNoId;
        status = pelmoEvent_CreateIO(&event, queue, noteEvent, source, condition, &fired);
        return event;
    }

    // The events of a pass of the IO thread, and of a dispatch.
    Fired pass() {
        fired.clear();
        stand.ioPass();
        dispatchAll(stand.queue);
        return fired;
    }

    EventStand stand;
    SocketPair pair;
    Fired fired;
    pelmoStatus status = kStatusSuccess;
};

// Until then it is posted once, with no lock held.
TEST_F(IoEvents, AreOutOfTheSetFromFiringToDispatchUnlessOnAnIoQueue) {
    static int hooks;
    hooks = 0;
    const auto hook = [](uint32_t, void*) { hooks += isFree(evmLock) ? 1 : 0; };
    ASSERT_EQ(pelmoQueue_SetHook(stand.queue, hook, nullptr), kStatusSuccess);
    const SocketPair other;
    const uint32_t event = watch(stand.queue, pair.ends[0]);
    EXPECT_EQ(pass(), Fired{});
    pair.ready();
    {
        const FailAlloc fail{.forGood = true};
        stand.ioPass();  // what can't be posted stays in the set
    }
    EXPECT_EQ(countOf(stand.queue), 0u);
    const uint32_t stays = watch(kFirstIoQueueId, other.ends[0]);
    other.ready();
    for (int i = 0; i < 3; ++i)
        stand.ioPass();
    EXPECT_EQ(fired, (Fired{stays, stays, stays}));
    EXPECT_EQ(hooks, 1);
    EXPECT_EQ(countOf(stand.queue), 1u);
    EXPECT_EQ(pelmoEvent_DestroyEx(stays, nullptr), kStatusSuccess);
    fired.clear();
    dispatchAll(stand.queue);
    EXPECT_EQ(fired, Fired{event});
    EXPECT_EQ(pass(), Fired{event});  // not read yet: it is still ready
}

TEST_F(IoEvents, TakeOneEventForEachSocketAndCondition) {
    const struct {
        uint32_t queue;
        int source;
        uint32_t condition;
        pelmoStatus expected;
    } cases[] = {
        {stand.queue, pair.ends[0], kIoRead, kStatusSuccess},
        {stand.queue, pair.ends[0], kIoRead, kStatusInvalidIoSource},
        {kFirstIoQueueId, pair.ends[0], kIoRead, kStatusInvalidIoSource},  // the same set
        {stand.queue, pair.ends[0], kIoWrite, kStatusSuccess},
        {stand.queue, pair.ends[0], kIoException, kStatusSuccess},
        {stand.queue, pair.ends[1], kIoRead, kStatusSuccess},
        {stand.queue, pair.ends[1], kIoRead | kIoWrite, kStatusInvalidIoCondition},
        {stand.queue, pair.ends[1], 0, kStatusInvalidIoCondition},
        {stand.queue, STDIN_FILENO, 0, kStatusInvalidIoSource},  // no socket
    };
    for (const auto& c : cases) {
        const uint32_t event = watch(c.queue, c.source, c.condition);
        EXPECT_EQ(status, c.expected);
        EXPECT_EQ(event != kNoId, c.expected == kStatusSuccess);
    }
    EXPECT_EQ(pass().size(), 1u);  // of the four, one can write
}

// A reader learns of the end of its pipe.
TEST_F(IoEvents, WatchWhatPollCanWaitFor) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int counter = eventfd(0, 0);
    FILE* const file = std::tmpfile();
    for (const int wrong : {fileno(file), 1'000'000, -1}) {
        EXPECT_EQ(watch(stand.queue, wrong), kNoId);
        EXPECT_EQ(status, kStatusInvalidIoSource) << wrong;
    }
    const uint32_t counts = watch(stand.queue, counter), reads = watch(stand.queue, ends[0]);
    EXPECT_EQ(pass(), Fired{});
    EXPECT_EQ(eventfd_write(counter, 1), 0);
    EXPECT_EQ(pass(), Fired{counts});
    EXPECT_EQ(pelmoEvent_DestroyEx(counts, nullptr), kStatusSuccess);
    close(ends[1]);
    EXPECT_EQ(pass(), Fired{reads});
    close(ends[0]);
    close(counter);
    std::fclose(file);
}

TEST_F(IoEvents, FireForASocketThatWasClosed) {
    int lost = dup(pair.ends[0]);
    const uint32_t dead = watch(stand.queue, lost);
    const uint32_t deadToo = watch(kFirstIoQueueId, lost, kIoWrite);
    const uint32_t alive = watch(stand.queue, pair.ends[0]);
    testing::internal::CaptureStderr();
    close(lost);
    EXPECT_EQ(pass(), (Fired{deadToo, dead}));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "select error: 10038 (The descriptor is not a socket)\n");

    ASSERT_EQ(dup2(pair.ends[1], lost), lost);  // the number alone doesn't bring it back
    pair.ready();
    EXPECT_EQ(pass(), Fired{alive});
    close(lost);
}

// A timer runs on through a long callback, while a socket that stays ready can't fire into it.
TEST_F(IoEvents, RearmTimersBeforeTheirCallbackAndSocketsAfterIt) {
    static const auto isArmed = [](uint32_t id) {
        const Event* const record = recordOf<Event>(id);
        return record->kind == kEventTimer ? record->timer.place != 0
                                           : Event_UnregisterIO(recordOf<Event>(id)) == 0;
    };
    const auto noteArmed = [](uint32_t id, pelmoMsg*, void* armed) {
        static_cast<std::vector<bool>*>(armed)->push_back(isArmed(id));
    };
    std::vector<bool> armed;
    uint32_t event = kNoId;
    stand.timer(1, noteArmed, &armed);
    EXPECT_EQ(stand.fire(1), 1u);
    ASSERT_EQ(pelmoEvent_CreateIO(&event, stand.queue, noteArmed, pair.ends[0], kIoWrite, &armed),
              kStatusSuccess);
    stand.ioPass();
    EXPECT_EQ(dispatchAll(stand.queue), 2u);
    EXPECT_EQ(armed, (std::vector<bool>{true, false}));
    EXPECT_TRUE(isArmed(event));
}

// The set itself: events without sockets, and passes without a poll.
struct PollSets : testing::Test {
    PollSets() { EXPECT_EQ(pollSetInit(&set), kStatusSuccess); }
    ~PollSets() override { pollSetFree(&set); }

    Event* event(int source, pelmoIoCondition condition = kIoRead) {
        events.push_back(std::make_unique<Event>());
        events.back()->header.refCount = 1;
        events.back()->io.source = source;
        events.back()->io.condition = condition;
        return events.back().get();
    }

    // New events to read on all of the sources.
    void add(int first, int last) {
        for (int source = first; source <= last; ++source)
            ASSERT_EQ(pollSetAdd(&set, event(source)), kStatusSuccess);
    }

    Event* firstReady(uint32_t condition) {
        uint32_t from = 0;
        return pollSetNextReady(&set, condition, &from);
    }

    PollSet set;
    std::vector<std::unique_ptr<Event>> events;
};

TEST_F(PollSets, RefuseThe32769thSocket) {
    add(0, 32'767);
    EXPECT_EQ(set.maxSockets, 32'768u);
    EXPECT_EQ(pollSetAdd(&set, event(40'000, kIoWrite)), kStatusSuccess);
    pollSetPrepare(&set);
    EXPECT_EQ(set.passCount, 32'769u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pollSetAdd(&set, event(50'000)), kStatusSocketLimit);
        EXPECT_FALSE(set.mayGrow);
    }
}

TEST_F(PollSets, GrowDuringAPass) {
    add(33, 64);
    add(1, 32);
    pollSetPrepare(&set);
    pollfd* const pass = set.pass;
    add(65, 200);
    EXPECT_EQ(set.pass, pass);
    EXPECT_EQ(set.passCount, 64u);
    set.pass[32].revents = POLLIN;
    EXPECT_EQ(firstReady(0), events[0].get());
    pollSetFinish(&set);
    pollSetPrepare(&set);
    EXPECT_EQ(set.passCount, 200u);
    EXPECT_EQ(set.pass[199].fd, 200);
}

TEST_F(PollSets, FireOnlyWhatWasAskedFor) {
    Event* const read = event(5);
    Event* const write = event(5, kIoWrite);
    Event* const urgent = event(5, kIoException);
    for (Event* each : {read, write, urgent})
        ASSERT_EQ(pollSetAdd(&set, each), kStatusSuccess);
    pollSetPrepare(&set);
    ASSERT_EQ(set.passCount, 1u);
    EXPECT_EQ(set.pass[0].events, POLLIN | POLLOUT | POLLPRI);
    const struct {
        short revents;
        Event* expected[3];
    } cases[] = {
        {POLLIN, {read, nullptr, nullptr}},    {POLLOUT, {nullptr, write, nullptr}},
        {POLLERR, {read, write, nullptr}},     {POLLHUP, {read, write, nullptr}},
        {POLLPRI, {nullptr, nullptr, urgent}},
    };
    for (const auto& c : cases) {
        set.pass[0].revents = c.revents;
        for (uint32_t condition = 0; condition < kIoConditions; ++condition)
            EXPECT_EQ(firstReady(condition), c.expected[condition]) << c.revents;
    }

    // Another socket by the same number isn't taken for the one that was polled.
    set.pass[0].revents = POLLIN | POLLOUT;
    EXPECT_EQ(pollSetRemove(&set, read), kStatusSuccess);
    add(5, 5);
    EXPECT_EQ(pollSetRemove(&set, read), kStatusInvalidEvent);
    EXPECT_EQ(firstReady(0), nullptr);
    EXPECT_EQ(firstReady(1), write);
}

// Watched for urgent data alone, a socket that hung up fires nothing, and doesn't keep the poll
// from waiting: every other pass goes without it.
TEST_F(PollSets, WaitOnDespiteAHangUpThatFiresNothing) {
    ASSERT_EQ(pollSetAdd(&set, event(5, kIoException)), kStatusSuccess);
    add(6, 6);
    for (int round = 0; round < 2; ++round) {
        pollSetPrepare(&set);
        ASSERT_EQ(set.passCount, 2u);
        EXPECT_FALSE(set.leavesOut);
        set.pass[0].revents = POLLHUP;
        EXPECT_EQ(firstReady(2), nullptr);
        pollSetFinish(&set);
        pollSetPrepare(&set);
        ASSERT_EQ(set.passCount, 1u);
        EXPECT_EQ(set.pass[0].fd, 6);
        EXPECT_TRUE(set.leavesOut);
        pollSetFinish(&set);
    }
    pollSetPrepare(&set);
    set.pass[0].revents = POLLHUP | POLLPRI;
    EXPECT_NE(firstReady(2), nullptr);
}

// On real clocks, with the threads of the event manager: each queue has a set of its own.
TEST(EventManager, TakesOneTo128IoThreads) {
    const RuntimeTables tables;
    ASSERT_EQ(EventManager_Start(), kStatusSuccess);
    EXPECT_EQ(EventManager_StartIo(0), kStatusInvalidArgument);
    EXPECT_EQ(EventManager_StartIo(129), kStatusInvalidArgument);
    ASSERT_EQ(EventManager_StartIo(3), kStatusSuccess);
    const SocketPair pair;
    std::atomic<int> fired{0};
    const auto fireOnce = [](uint32_t event, pelmoMsg*, void* count) {
        pelmoEvent_DestroyEx(event, nullptr);
        ++*static_cast<std::atomic<int>*>(count);
    };
    for (const uint32_t queue : {6u, 7u}) {
        uint32_t event = kNoId;
        EXPECT_EQ(pelmoEvent_CreateIO(&event, queue, fireOnce, pair.ends[0], kIoRead, &fired),
                  kStatusSuccess);
    }
    pair.ready();
    EXPECT_TRUE(within(60, [&] { return fired == 2; }));
    EventManager_Stop();
}

TEST(SocketError, MapsErrnoToNumbersWithTexts) {
    EXPECT_EQ(socketErrorFromErrno(EHOSTUNREACH), 10065);
    EXPECT_EQ(socketErrorFromErrno(ENOMEM), ENOMEM);
    EXPECT_STREQ(socketErrorText(ENOMEM), "***Unknown***");
}

}  // namespace
