#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <utility>

#include "lib/runtime/post.h"
#include "lib/runtime/queue_group_internal.h"
#include "lib/runtime/queue_internal.h"
#include "tests/support/runtime_objects.h"

namespace {

struct Queues : testing::Test {
    RuntimeTables tables;
    uint32_t queue = makeQueue();
    uint32_t synchronous = makeQueue(true);
};

enum Ring { kPending, kReady };

pelmoMsg* push(uint32_t queue, uint32_t event, Ring ring = kPending) {
    const Queue* record = recordOf<Queue>(queue);
    pelmoMsg* message = messageFor(event);
    EXPECT_TRUE(EntryRing_PushBack(ring == kReady ? record->ready : record->pending, message));
    return message;
}

TEST_F(Queues, LimitTheirArgumentsFirst) {
    ASSERT_EQ(Queue_Create(nullptr, kDefaultQueueId, "1", false, false), kStatusSuccess);
    constexpr pelmoStatus kConflict = kStatusArgumentsConflict;
    const struct {
        uint32_t policy, most, discard;
        pelmoStatus status;
    } rows[] = {
        {1, 10, 1, kStatusSuccess}, {0, 0, 0, kStatusSuccess},   {0, 1, 0, kConflict},
        {0, 0, 1, kConflict},       {1, 10, 2, kConflict},       {1, 10, 0, kConflict},
        {1, 0, 1, kConflict},       {2, 10, 10, kStatusSuccess}, {2, 10, 11, kConflict},
        {2, 0, 0, kConflict},       {3, 1, 0, kStatusSuccess},   {3, 1, 2, kConflict},
        {4, 10, 1, kConflict},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.policy << ' ' << row.most << ' ' << row.discard);
        EXPECT_EQ(pelmoQueue_SetLimitPolicy(queue, row.policy, row.most, row.discard), row.status);
    }
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(kDefaultQueueId, 1, 10, 2), kConflict);
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(kDefaultQueueId, 1, 10, 1), kStatusNotPermitted);
    // A queue is for polls or for dispatch.
    pelmoMsg* message = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_Poll(queue, &message, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_PollMany(queue, &message, 1, &count, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_SetHook(synchronous, nullptr, nullptr), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_SetLimitPolicy(synchronous, 0, 0, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueue_TimedDispatch(synchronous, 0), kStatusNotPermitted);
    // The library's own don't end while it is open.
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusNotPermitted);
    libraryOpen = false;
    EXPECT_EQ(pelmoQueue_DestroyEx(kDefaultQueueId, nullptr, nullptr), kStatusSuccess);
}

// L: a listener's, D: of an event that is gone, T: a timer's; '.' where one went. Any number of the
// first entries is in the one ring, the others in the other.
TEST_F(Queues, DropWhatTheirPolicySaysInEitherRing) {
    const struct {
        uint32_t policy, amount;
        const char *before, *after;
    } rows[] = {
        {kLimitDiscardNew, 1, "LLLL", "LLLL"},       {kLimitDiscardFirst, 1, "LLLL", ".LLL"},
        {kLimitDiscardFirst, 3, "LLTDLT", "..T.LT"}, {kLimitDiscardFirst, 3, "TLTLTTT", "T.T.TTT"},
        {kLimitDiscardLast, 1, "LLLL", "LLL."},      {kLimitDiscardLast, 2, "LTLDTT", "LT..TT"},
        {kLimitDiscardLast, 1, "TTT", "TTT"},        {kLimitDiscardLast, 2, "DTTT", ".TTT"},
        {kLimitDiscardFirst, 2, "LL", "LL"},  // not above the limit
    };
    const TestEvent listener(kEventListener, queue), timer(kEventTimer, queue);
    for (const auto& [policy, amount, before, after] : rows) {
        for (size_t inReady = 0; inReady <= std::strlen(before); ++inReady) {
            SCOPED_TRACE(testing::Message() << policy << ' ' << before << ' ' << inReady);
            const uint32_t limited = makeQueue();
            std::vector<const pelmoMsg*> expected;
            for (size_t i = 0; before[i] != '\0'; ++i) {
                const uint32_t event = before[i] == 'L'   ? listener.id
                                       : before[i] == 'T' ? timer.id
                                                          : kNoId;
                const pelmoMsg* entry = push(limited, event, i < inReady ? kReady : kPending);
                if (after[i] != '.') expected.push_back(entry);
            }
            EXPECT_EQ(pelmoQueue_SetLimitPolicy(limited, policy, amount, amount), kStatusSuccess);
            EXPECT_EQ(entriesOf(limited), expected);
            EXPECT_EQ(countOf(limited), expected.size());
        }
    }
}

TEST_F(Queues, GivePolledMessagesAway) {
    const TestEvent event(kEventListener, synchronous);
    pelmoMsg* message = nullptr;
    for (const double seconds : {0.0, 0.001, std::nan("")})
        EXPECT_EQ(pelmoQueue_Poll(synchronous, &message, seconds), kStatusTimeout);

    push(synchronous, 0);
    pelmoMsg* const next = push(synchronous, event.id);
    msgClearOwned(next);
    ASSERT_EQ(pelmoQueue_Poll(synchronous, &message, -1), kStatusSuccess);
    EXPECT_EQ(message, next);
    EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
    push(synchronous, 0);
    EXPECT_EQ(pelmoQueue_Poll(synchronous, &message, 0), kStatusSuccess);
    EXPECT_EQ(message, nullptr);

    // A step of three, less what died; what has no room in the array stays.
    std::vector<const pelmoMsg*> pushed;
    for (const uint32_t id : {event.id, 0u, event.id, event.id, event.id})
        pushed.push_back(push(synchronous, id));
    pelmoMsg* many[4] = {};
    uint32_t count = 0;
    EXPECT_EQ(pelmoQueue_PollMany(synchronous, many, 3, &count, 0), kStatusSuccess);
    EXPECT_EQ(count, 3u);
    const pelmoMsg* const got[] = {pushed[0], pushed[2], pushed[3], nullptr};
    EXPECT_TRUE(std::ranges::equal(got, many));
    for (pelmoMsg* const each : std::span(many, 3))
        EXPECT_EQ(pelmoMsg_Destroy(each), kStatusSuccess);
    EXPECT_EQ(countOf(synchronous), 1u);
    event.destroy();
    EXPECT_EQ(pelmoQueue_PollMany(synchronous, many, 3, &count, -1), kStatusSuccess);
    EXPECT_EQ(count, 0u);
}

using Ids = std::vector<uint32_t>;

Ids queuesOf(uint32_t group) {
    return idsIn(recordOf<QueueGroup>(group)->queues);
}

Ids groupsOf(uint32_t queue) {
    return idsIn(recordOf<Queue>(queue)->groups);
}

// Has the group been signalled since it was last asked?
bool wasSignalled(uint32_t group) {
    return std::exchange(recordOf<QueueGroup>(group)->cond.signalled, false);
}

struct Groups : testing::Test {
    RuntimeTables tables;
    uint32_t group = makeGroup();
};

TEST_F(Groups, KeepTheHighestPriorityFirstAndTheFirstOfEqualOnes) {
    Ids q;
    for (const uint32_t priority : {1, 3, 2, 3, 1, 2}) {
        q.push_back(makeQueue());
        EXPECT_EQ(pelmoQueue_SetPriority(q.back(), priority), kStatusSuccess);
        EXPECT_EQ(pelmoQueueGroup_Add(group, q.back()), kStatusSuccess);
    }
    EXPECT_EQ(queuesOf(group), (Ids{q[1], q[3], q[2], q[5], q[0], q[4]}));
    const struct {
        size_t queue;
        uint32_t priority;
        Ids order;
    } changes[] = {
        {1, 2, {q[3], q[2], q[5], q[1], q[0], q[4]}},  // after those that were there
        {4, 9, {q[4], q[3], q[2], q[5], q[1], q[0]}},
        {3, 0, {q[4], q[2], q[5], q[1], q[0], q[3]}},
        {2, 2, {q[4], q[2], q[5], q[1], q[0], q[3]}},  // none: it keeps its place
    };
    for (const auto& change : changes) {
        EXPECT_EQ(pelmoQueue_SetPriority(q[change.queue], change.priority), kStatusSuccess);
        EXPECT_EQ(queuesOf(group), change.order);
    }
    // A queue that joins moves itself alone: this one's own change is still to come.
    recordOf<Queue>(q[0])->priority = 7;
    EXPECT_EQ(pelmoQueueGroup_Add(group, makeQueue()), kStatusSuccess);
    EXPECT_EQ(queuesOf(group)[4], q[0]);
    for (const uint32_t queue : {q[4], q[0], queuesOf(group)[5]})
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
    EXPECT_EQ(queuesOf(group), (Ids{q[2], q[5], q[1], q[3]}));
}

TEST_F(Groups, KnowAQueueOnceUntilItIsRemoved) {
    const uint32_t queue = makeQueue(), synchronous = makeQueue(true);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Add(group, synchronous), kStatusNoMemory);
    EXPECT_EQ(pelmoQueueGroup_Add(queue, kNoId), kStatusInvalidQueue);  // looked at first
    EXPECT_EQ(queuesOf(group), Ids{queue});
    EXPECT_EQ(groupsOf(queue), Ids{group});
    for (const pelmoStatus expected : {kStatusSuccess, kStatusInvalidQueue})
        EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), expected);
    EXPECT_EQ(groupsOf(queue), Ids{});
    EXPECT_EQ(queuesOf(group), Ids{});
}

// A queue goes on naming groups that are gone until it visits its groups.
TEST_F(Groups, AreAllSignalledByAPostHoweverMany) {
    for (const size_t many : {1u, 2u, 33u, 70u}) {
        const uint32_t queue = makeQueue();
        const TestEvent timer(kEventTimer, queue);
        Ids named, alive;
        for (size_t i = 0; i < many; ++i) {
            named.push_back(makeGroup());
            EXPECT_EQ(pelmoQueueGroup_Add(named[i], queue), kStatusSuccess);
            EXPECT_TRUE(wasSignalled(named[i]));
            if (i % 3 != 1) alive.push_back(named[i]);
        }
        for (size_t i = 1; i < many; i += 3)
            EXPECT_EQ(pelmoQueueGroup_Destroy(named[i]), kStatusSuccess);
        EXPECT_EQ(groupsOf(queue), named);
        EXPECT_EQ(Event_Post(timer.event), kStatusSuccess);
        EXPECT_EQ(groupsOf(queue), alive);
        EXPECT_EQ(pelmoQueue_SetPriority(queue, 5), kStatusSuccess);
        for (const uint32_t each : alive)
            EXPECT_TRUE(wasSignalled(each)) << many;
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
        for (const uint32_t each : alive)
            EXPECT_EQ(queuesOf(each), Ids{});
    }
}

}  // namespace
