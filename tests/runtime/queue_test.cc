#include "lib/runtime/queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <span>
#include <thread>
#include <vector>

#include "tests/support/fail_alloc.h"
#include "tests/support/runtime_objects.h"

namespace {

struct Queues : testing::Test {
    RuntimeTables tables;
};

uint32_t countOf(uint32_t queue) {
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_GetCount(queue, &count), kStatusSuccess);
    return count;
}

enum Ring { kPending, kReady };

const pelmoMsg* push(uint32_t queue, uint32_t event, Ring ring = kPending) {
    Queue* record = recordOf(queue);
    pelmoMsg* message = messageFor(event);
    EXPECT_TRUE(EntryRing_PushBack(ring == kReady ? record->ready : record->pending, message));
    return message;
}

// All public calls on a queue but its destroy; with their outputs, and without.
std::vector<pelmoStatus> callAll(uint32_t queue, bool outputs) {
    uint32_t number;
    uint32_t* const out = outputs ? &number : nullptr;
    const char* name;
    pelmoQueueHook hook;
    pelmoMsg* message;
    pelmoMsg** const outMessage = outputs ? &message : nullptr;
    return {pelmoQueue_GetCount(queue, out),
            pelmoQueue_GetHook(queue, outputs ? &hook : nullptr),
            pelmoQueue_GetLimitPolicy(queue, &number, out, &number),
            pelmoQueue_GetName(queue, outputs ? &name : nullptr),
            pelmoQueue_SetName(queue, outputs ? "name" : nullptr),
            pelmoQueue_GetPriority(queue, out),
            pelmoQueue_Poll(queue, outMessage, 0),
            pelmoQueue_PollMany(queue, outMessage, 1, out, 0),
            outputs ? pelmoQueue_SetPriority(queue, 1) : kStatusInvalidArgument,
            outputs ? pelmoQueue_SetHook(queue, nullptr, nullptr) : kStatusInvalidArgument,
            outputs ? pelmoQueue_SetLimitPolicy(queue, kLimitNone, 0, 0) : kStatusInvalidArgument};
}

TEST_F(Queues, RefuseBadCallsInOrder) {
    const uint32_t plain = makeQueue();
    const uint32_t synchronous = makeQueue(true);
    const auto all = [](pelmoStatus status) { return std::vector<pelmoStatus>(11, status); };
    EXPECT_EQ(callAll(synchronous + 1, true), all(kStatusInvalidQueue));
    EXPECT_EQ(callAll(synchronous, false), all(kStatusInvalidArgument));
    EXPECT_EQ(callAll(plain, false), all(kStatusInvalidArgument));

    auto expected = all(kStatusSuccess);
    expected[6] = expected[7] = kStatusNotPermitted;
    EXPECT_EQ(callAll(plain, true), expected);
    expected[6] = expected[7] = kStatusTimeout;
    expected[9] = expected[10] = kStatusNotPermitted;
    EXPECT_EQ(callAll(synchronous, true), expected);
    EXPECT_EQ(pelmoQueue_Create(nullptr), kStatusInvalidArgument);

    libraryOpen = false;
    uint32_t none;
    EXPECT_EQ(callAll(plain, true), all(kStatusNotInitialized));
    EXPECT_EQ(pelmoQueue_Create(nullptr), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueue_CreateSynchronous(&none), kStatusNotInitialized);
    for (const uint32_t queue : {plain, synchronous})
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
}

TEST_F(Queues, LimitTheirArgumentsFirst) {
    ASSERT_EQ(Queue_Create(nullptr, kDefaultQueueId, "1", false, false), kStatusSuccess);
    const uint32_t queue = makeQueue();
    const struct {
        uint32_t policy, most, discard;
        pelmoStatus status;
    } rows[] = {
        {0, 0, 0, kStatusSuccess},
        {0, 1, 0, kStatusArgumentsConflict},
        {0, 0, 1, kStatusArgumentsConflict},
        {1, 10, 1, kStatusSuccess},
        {1, 10, 2, kStatusArgumentsConflict},
        {1, 10, 0, kStatusArgumentsConflict},
        {1, 0, 1, kStatusArgumentsConflict},
        {2, 10, 10, kStatusSuccess},
        {2, 10, 11, kStatusArgumentsConflict},
        {2, 0, 0, kStatusArgumentsConflict},
        {3, 1, 0, kStatusSuccess},
        {3, 1, 2, kStatusArgumentsConflict},
        {4, 10, 1, kStatusArgumentsConflict},
    };
    uint32_t stored[3] = {};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.most << ' ' << row.discard);
        const auto set = [&row](uint32_t id) {
            return pelmoQueue_SetLimitPolicy(id, row.policy, row.most, row.discard);
        };
        const bool agrees = row.status == kStatusSuccess;
        EXPECT_EQ(set(queue), row.status);
        EXPECT_EQ(set(kDefaultQueueId), agrees ? kStatusNotPermitted : row.status);
        EXPECT_EQ(set(queue + 1), agrees ? kStatusInvalidQueue : row.status);
        if (agrees) std::ranges::copy(std::to_array({row.policy, row.most, row.discard}), stored);
        uint32_t now[3];
        ASSERT_EQ(pelmoQueue_GetLimitPolicy(queue, now, now + 1, now + 2), kStatusSuccess);
        EXPECT_TRUE(std::ranges::equal(now, stored));
    }
    libraryOpen = false;
    for (const uint32_t id : {queue, kDefaultQueueId})
        EXPECT_EQ(pelmoQueue_DestroyEx(id, nullptr, nullptr), kStatusSuccess);
}

struct Discard {
    uint32_t policy, amount;
    const char* before;  // L: a listener's, D: of an event that is gone, T: a timer's
    const char* after;   // '.' where one went
};

// With the first `inReady` entries in the one ring and the others in the other.
void checkDiscard(const Discard& row, size_t inReady) {
    SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.before << ' ' << inReady);
    const uint32_t queue = makeQueue();
    const TestEvent listener(kEventListener, queue), timer(kEventTimer, queue);
    std::vector<const pelmoMsg*> expected;
    for (size_t i = 0; row.before[i] != '\0'; ++i) {
        const char kind = row.before[i];
        const uint32_t event = kind == 'L' ? listener.id : kind == 'T' ? timer.id : 0;
        const pelmoMsg* entry = push(queue, event, i < inReady ? kReady : kPending);
        if (row.after[i] != '.') expected.push_back(entry);
    }
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(queue, row.policy, row.amount, row.amount), kStatusSuccess);
    EXPECT_EQ(entriesOf(queue), expected);
    EXPECT_EQ(countOf(queue), expected.size());
    EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
}

TEST_F(Queues, DropWhatTheirPolicySaysWhereverItStands) {
    const Discard rows[] = {
        {kLimitDiscardNew, 1, "LLLL", "LLLL"},       {kLimitDiscardFirst, 1, "LLLL", ".LLL"},
        {kLimitDiscardFirst, 3, "LLTDLT", "..T.LT"}, {kLimitDiscardFirst, 3, "TLTLTTT", "T.T.TTT"},
        {kLimitDiscardLast, 1, "LLLL", "LLL."},      {kLimitDiscardLast, 2, "LTLDTT", "LT..TT"},
        {kLimitDiscardLast, 1, "TTT", "TTT"},        {kLimitDiscardLast, 2, "DTTT", ".TTT"},
        {kLimitDiscardFirst, 2, "LL", "LL"},  // not above the limit
    };
    for (const Discard& row : rows) {
        for (size_t inReady = 0; inReady <= std::strlen(row.before); ++inReady)
            checkDiscard(row, inReady);
    }
}

TEST_F(Queues, HandPolledMessagesOver) {
    const uint32_t queue = makeQueue(true);
    TestEvent event(kEventListener, queue);
    pelmoMsg* message = nullptr;
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, 0), kStatusTimeout);
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, std::nan("")), kStatusTimeout);
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, 0.001), kStatusTimeout);

    for (const uint32_t id : {0u, event.id, 0u, event.id}) {
        push(queue, id);
        msgClearOwned(const_cast<pelmoMsg*>(entriesOf(queue).back()));
    }
    const pelmoMsg* const expected[] = {entriesOf(queue)[1], entriesOf(queue)[3]};
    for (const pelmoMsg* each : expected) {
        ASSERT_EQ(pelmoQueue_Poll(queue, &message, -1), kStatusSuccess);
        EXPECT_EQ(message, each);
        EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
    }
    push(queue, 0);
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, 0), kStatusSuccess);
    EXPECT_EQ(message, nullptr);

    // A step of three, less what died; what has no room in the array stays.
    std::vector<const pelmoMsg*> pushed;
    for (const uint32_t id : {event.id, 0u, event.id, event.id, event.id})
        pushed.push_back(push(queue, id));
    pelmoMsg* many[4] = {};
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_PollMany(queue, many, 3, &count, 0), kStatusSuccess);
    EXPECT_EQ(count, 3u);
    const pelmoMsg* const got[] = {pushed[0], pushed[2], pushed[3]};
    EXPECT_TRUE(std::ranges::equal(got, std::span(many, 3)));
    EXPECT_EQ(many[3], nullptr);
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_EQ(pelmoMsg_Destroy(many[i]), kStatusSuccess);
    EXPECT_EQ(countOf(queue), 1u);
    event.destroy();
    EXPECT_EQ(pelmoQueue_PollMany(queue, many, 3, &count, -1), kStatusSuccess);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
}

void awaitWaiters(Queue* queue, uint32_t count) {
    for (uint32_t waiting = 0; waiting != count;) {
        Id_Enter(&queue->header);
        waiting = queue->waiters;
        Id_Leave(&queue->header);
        std::this_thread::yield();
    }
}

// Two that wait, one with a limit that is far away.
template <typename End>
void endPolls(pelmoStatus expected, End end) {
    const uint32_t id = makeQueue(true);
    Held<Queue> queue;
    ASSERT_EQ(queue.get(id, IdAccess::kUnlocked), kStatusSuccess);
    const auto poll = [id, expected](double seconds) {
        pelmoMsg* message = nullptr;
        EXPECT_EQ(pelmoQueue_Poll(id, &message, seconds), expected);
    };
    std::thread forever(poll, -1.0), longTime(poll, 1e6);
    awaitWaiters(queue.pointer(), 2);
    end(id);
    forever.join();
    longTime.join();
    (void)pelmoQueue_DestroyEx(id, nullptr, nullptr);
}

TEST_F(Queues, EndTheirPollsWithThemAndWithTheLibrary) {
    const auto destroy = [](uint32_t id) {
        EXPECT_EQ(pelmoQueue_DestroyEx(id, nullptr, nullptr), kStatusSuccess);
    };
    endPolls(kStatusInvalidQueue, destroy);
    endPolls(kStatusNotInitialized, [&](uint32_t id) {
        libraryOpen = false;
        destroy(id);
    });
}

struct Completed {
    uint32_t times = 0, queue = kNoId;
    static void run(uint32_t id, void* closure) {
        auto* self = static_cast<Completed*>(closure);
        ++self->times;
        self->queue = id;
        EXPECT_EQ(Id_Check(id, IdType::kQueue), kStatusNotFound);
    }
};

TEST_F(Queues, CompleteAtOnceOrLeaveItToTheDispatchUnderWay) {
    for (const uint32_t dispatching : {0u, 2u}) {
        const uint32_t id = makeQueue();
        const TestEvent event(kEventListener, id);
        for (const Ring ring : {kPending, kReady})
            push(id, event.id, ring);  // go with the queue
        Held<Queue> queue;
        ASSERT_EQ(queue.get(id, IdAccess::kUnlocked), kStatusSuccess);
        queue->dispatching = dispatching;
        Completed completed;
        EXPECT_EQ(pelmoQueue_DestroyEx(id, Completed::run, &completed), kStatusSuccess);
        EXPECT_EQ(completed.times, dispatching == 0 ? 1u : 0u);
        EXPECT_EQ(completed.queue, dispatching == 0 ? id : kNoId);
        EXPECT_EQ(queue->completion, dispatching == 0 ? nullptr : Completed::run);
        EXPECT_EQ(queue->completionClosure, dispatching == 0 ? nullptr : &completed);
    }
    ASSERT_EQ(Queue_Create(nullptr, kDefaultQueueId, "1", false, false), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusNotPermitted);
    libraryOpen = false;
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusSuccess);
}

TEST_F(Queues, OutOfMemoryLeaveAllAsItWas) {
    const size_t failed = eachAllocationFails([] {
        char* name = strdup("given away");
        uint32_t id = kNoId;
        const pelmoStatus status = Queue_Create(&id, kNoId, name, true, false);
        if (status != kStatusSuccess) {
            EXPECT_EQ(status, kStatusNoMemory);
            EXPECT_EQ(id, kNoId);
            EXPECT_STREQ(name, "given away");  // the caller's still
            std::free(name);
            return;
        }
        char another[] = "another";
        const bool renamed = pelmoQueue_SetName(id, another) == kStatusSuccess;
        another[0] = 'A';
        const char* now = nullptr;
        EXPECT_EQ(pelmoQueue_GetName(id, &now), kStatusSuccess);
        EXPECT_STREQ(now, renamed ? "another" : "given away");
        EXPECT_EQ(renamed, allocationsFailed() == 0);
        EXPECT_EQ(pelmoQueue_DestroyEx(id, nullptr, nullptr), kStatusSuccess);
    });
    EXPECT_GT(failed, 12u);
}

}  // namespace
