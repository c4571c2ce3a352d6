#include "lib/runtime/io_events.h"

#include <netinet/in.h>

#include <memory>
#include <thread>

#include "lib/containers/dpa.h"
#include "lib/runtime/socket_error.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

struct IoEvents : testing::Test {
    uint32_t watch(uint32_t queue, int source, uint32_t condition) {
        uint32_t event = kNoId;
        status = pelmoEvent_CreateIO(&event, queue, noteEvent, source, condition, &fired);
        return event;
    }

    EventStand stand;
    SocketPair pair;
    std::vector<uint32_t> fired;
    pelmoStatus status = kStatusSuccess;
};

TEST_F(IoEvents, AreOutOfTheSetFromFiringToDispatch) {
    const uint32_t event = watch(stand.queue, pair.ends[0], kIoRead);
    stand.ioPass();
    EXPECT_EQ(stand.entries(stand.queue), 0u);
    pair.ready();
    for (int i = 0; i < 3; ++i)
        stand.ioPass();
    EXPECT_EQ(stand.entries(stand.queue), 1u);
    EXPECT_EQ(stand.dispatchAll(stand.queue), 1u);
    stand.ioPass();  // nobody has read: it is ready still
    EXPECT_EQ(stand.dispatchAll(stand.queue), 1u);
    EXPECT_EQ(fired, (std::vector{event, event}));
}

TEST_F(IoEvents, ThatAreDestroyedCantComeBack) {
    const uint32_t event = watch(stand.queue, pair.ends[0], kIoRead);
    Held<Event> held;
    ASSERT_EQ(held.get(event, IdAccess::kUnlocked), kStatusSuccess);
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
    EXPECT_EQ(Event_UnregisterIO(held.pointer()), kStatusInvalidEvent);
    EXPECT_EQ(Event_RegisterIO(held.pointer()), kStatusInvalidEvent);
}

TEST_F(IoEvents, StayInTheSetOnAnIoQueue) {
    const uint32_t event = watch(kFirstIoQueueId, pair.ends[0], kIoRead);
    pair.ready();
    for (int i = 0; i < 3; ++i)
        stand.ioPass();
    EXPECT_EQ(fired, (std::vector{event, event, event}));
}

TEST_F(IoEvents, TakeOneEventForEachSocketAndCondition) {
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
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
        {stand.queue, pipeEnds[0], 0, kStatusInvalidIoSource},
        {stand.queue, -1, kIoRead, kStatusInvalidIoSource},
        {9'999, pipeEnds[0], kIoRead, kStatusInvalidQueue},
    };
    for (const auto& c : cases) {
        const uint32_t event = watch(c.queue, c.source, c.condition);
        EXPECT_EQ(status, c.expected);
        EXPECT_EQ(event != kNoId, c.expected == kStatusSuccess);
    }
    stand.ioPass();  // of the five, one can write
    EXPECT_EQ(stand.dispatchAll(stand.queue), 1u);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST_F(IoEvents, HearOfASocketThatSomebodyClosed) {
    int lost = dup(pair.ends[0]);
    const uint32_t dead = watch(stand.queue, lost, kIoRead);
    const uint32_t deadToo = watch(kFirstIoQueueId, lost, kIoWrite);
    const uint32_t alive = watch(stand.queue, pair.ends[0], kIoRead);
    testing::internal::CaptureStderr();
    close(lost);
    stand.ioPass();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "select error: 10038 (The descriptor is not a socket)\n");
    EXPECT_EQ(fired, std::vector{deadToo});
    stand.dispatchAll(stand.queue);
    EXPECT_EQ(fired, (std::vector{deadToo, dead}));

    ASSERT_EQ(dup2(pair.ends[1], lost), lost);  // the number alone doesn't bring it back
    pair.ready();
    stand.ioPass();
    stand.dispatchAll(stand.queue);
    EXPECT_EQ(fired, (std::vector{deadToo, dead, alive}));
    close(lost);
}

TEST_F(IoEvents, AreStillThereAfterAPostWithoutMemory) {
    const uint32_t event = watch(stand.queue, pair.ends[0], kIoRead);
    pair.ready();
    {
        const FailAlloc fail{.forGood = true};
        stand.ioPass();
    }
    EXPECT_EQ(stand.entries(stand.queue), 0u);
    stand.ioPass();
    stand.dispatchAll(stand.queue);
    EXPECT_EQ(fired, std::vector{event});
}

TEST_F(IoEvents, ArePostedWithNoLockHeld) {
    static int hooks;
    hooks = 0;
    const auto hook = [](uint32_t, void*) {
        std::thread([] { LockGuard guard(evmLock); }).join();
        ++hooks;
    };
    ASSERT_EQ(pelmoQueue_SetHook(stand.queue, hook, nullptr), kStatusSuccess);
    (void)watch(stand.queue, pair.ends[0], kIoRead);
    pair.ready();
    stand.ioPass();
    EXPECT_EQ(hooks, 1);
}

TEST_F(IoEvents, FillALargerSet) {
    constexpr uint32_t kSockets = 129;
    std::vector<std::unique_ptr<SocketPair>> pairs(kSockets);
    for (uint32_t i = 0; i < kSockets; ++i) {
        pairs[i] = std::make_unique<SocketPair>();
        pairs[i]->ready();
        EXPECT_NE(watch(stand.queue, pairs[i]->ends[0], kIoRead), kNoId);
        // The pair's socket counts too.
        EXPECT_EQ(stand.io->sockets.maxSockets, i < 63 ? 64u : i < 127 ? 128u : 256u);
    }
    stand.ioPass();
    EXPECT_EQ(stand.dispatchAll(stand.queue), kSockets);
}

TEST_F(IoEvents, AreMadeWholeOrNotAtAllWithoutMemory) {
    std::vector<std::unique_ptr<SocketPair>> pairs(66);
    for (auto& each : pairs)
        each = std::make_unique<SocketPair>();
    testing::internal::CaptureStderr();
    const size_t failures = eachAllocationFails([&] {
        std::vector<uint32_t> made;
        for (const auto& each : pairs) {
            const uint32_t event = watch(stand.queue, each->ends[0], kIoRead);
            if (event != kNoId) made.push_back(event);
            EXPECT_TRUE(event != kNoId || status == kStatusNoMemory ||
                        status == kStatusSocketLimit);
        }
        EXPECT_GE(made.size() + allocationsFailed(), pairs.size());
        allocationsHeal();
        for (const uint32_t event : made)
            EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
        EXPECT_EQ(stand.io->sockets.events[0]->count, 1u);
    });
    (void)testing::internal::GetCapturedStderr();
    EXPECT_GT(failures, 20u);
}

// The set itself: events without sockets, and passes that nobody polls.
struct Sets : testing::Test {
    Sets() { EXPECT_EQ(pollSetInit(&set), kStatusSuccess); }
    ~Sets() override { pollSetFree(&set); }

    Event* event(int source, IoCondition condition = kIoRead) {
        events.push_back(std::make_unique<Event>());
        events.back()->header.refCount = 1;
        events.back()->io.source = source;
        events.back()->io.condition = condition;
        return events.back().get();
    }

    Event* firstReady(uint32_t condition) {
        uint32_t from = 0;
        return pollSetNextReady(&set, condition, &from);
    }

    PollSet set;
    std::vector<std::unique_ptr<Event>> events;
};

TEST_F(Sets, EndAt32768Sockets) {
    for (int source = 0; source < 32'768; ++source)
        ASSERT_EQ(pollSetAdd(&set, event(source)), kStatusSuccess);
    EXPECT_EQ(set.maxSockets, 32'768u);
    EXPECT_EQ(pollSetAdd(&set, event(40'000, kIoWrite)), kStatusSuccess);
    pollSetPrepare(&set);
    EXPECT_EQ(set.passCount, 32'769u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pollSetAdd(&set, event(50'000)), kStatusSocketLimit);
        EXPECT_FALSE(set.mayGrow);
    }
}

TEST_F(Sets, GrowBesideThePassUnderWay) {
    for (int source = 64; source > 0; --source)
        ASSERT_EQ(pollSetAdd(&set, event(source)), kStatusSuccess);
    pollSetPrepare(&set);
    pollfd* const pass = set.pass;
    for (int source = 65; source <= 200; ++source)
        ASSERT_EQ(pollSetAdd(&set, event(source)), kStatusSuccess);
    EXPECT_EQ(set.pass, pass);
    EXPECT_EQ(set.passCount, 64u);
    set.pass[63].revents = POLLIN;
    EXPECT_EQ(firstReady(0), events[0].get());
    pollSetFinish(&set);
    pollSetPrepare(&set);
    EXPECT_EQ(set.passCount, 200u);
    EXPECT_EQ(set.pass[199].fd, 200);
}

TEST_F(Sets, FireWhatWasAskedForAlone) {
    Event* const read = event(5);
    Event* const write = event(5, kIoWrite);
    ASSERT_EQ(pollSetAdd(&set, read), kStatusSuccess);
    ASSERT_EQ(pollSetAdd(&set, write), kStatusSuccess);
    pollSetPrepare(&set);
    ASSERT_EQ(set.passCount, 1u);
    EXPECT_EQ(set.pass[0].events, POLLIN | POLLOUT);
    const struct {
        short revents;
        Event* expected[3];
    } cases[] = {
        {POLLIN, {read, nullptr, nullptr}},     {POLLOUT, {nullptr, write, nullptr}},
        {POLLERR, {read, write, nullptr}},      {POLLHUP, {read, write, nullptr}},
        {POLLPRI, {nullptr, nullptr, nullptr}},
    };
    for (const auto& c : cases) {
        set.pass[0].revents = c.revents;
        for (uint32_t condition = 0; condition < kIoConditions; ++condition)
            EXPECT_EQ(firstReady(condition), c.expected[condition]) << c.revents;
    }

    // Another socket by the same number isn't taken for the one that was polled.
    set.pass[0].revents = POLLIN | POLLOUT;
    EXPECT_EQ(pollSetRemove(&set, read), kStatusSuccess);
    Event* const later = event(5);
    EXPECT_EQ(pollSetAdd(&set, later), kStatusSuccess);
    EXPECT_EQ(pollSetRemove(&set, read), kStatusInvalidEvent);
    EXPECT_EQ(firstReady(0), nullptr);
    EXPECT_EQ(firstReady(1), write);
}

TEST(SocketError, MapsErrnoToNumbersWithTexts) {
    const struct {
        int error, code;
        const char* text;
    } cases[] = {
        {0, 0, "***Unknown***"},
        {EINTR, 10004, "The blocking call was cancelled"},
        {EBADF, 10038, "The descriptor is not a socket"},
        {EAGAIN, 10035,
         "The socket is marked as non-blocking and the connection can not be completed now."},
        {ECONNABORTED, 10053, "***Unknown***"},
        {EHOSTUNREACH, 10065, "The host can't be reached from this host at this time"},
        {ENOMEM, 12, "***Unknown***"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(socketErrorFromErrno(c.error), c.code);
        EXPECT_STREQ(socketErrorText(c.code), c.text);
    }
}

}  // namespace
