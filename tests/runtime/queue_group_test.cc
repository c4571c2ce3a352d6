#include <algorithm>
#include <utility>

#include "lib/runtime/post.h"
#include "lib/runtime/queue_group_internal.h"
#include "tests/support/runtime_objects.h"

namespace {

using Ids = std::vector<uint32_t>;

Ids queuesOf(uint32_t group) {
    Held<QueueGroup> held;
    EXPECT_EQ(held.findLocked(group), kStatusSuccess);
    return idsIn(held->queues);
}

Ids groupsOf(uint32_t queue) {
    Held<Queue> held;
    EXPECT_EQ(held.findLocked(queue), kStatusSuccess);
    return idsIn(held->groups);
}

// Has the group been signalled since it was last asked?
bool wasSignalled(uint32_t group) {
    return std::exchange(recordOf<QueueGroup>(group)->cond.signalled, false);
}

// In the group, in the order of the list.
Ids makeQueuesIn(uint32_t group, std::initializer_list<uint32_t> priorities) {
    Ids queues;
    for (const uint32_t priority : priorities) {
        queues.push_back(makeQueue());
        EXPECT_EQ(pelmoQueue_SetPriority(queues.back(), priority), kStatusSuccess);
        EXPECT_EQ(pelmoQueueGroup_Add(group, queues.back()), kStatusSuccess);
    }
    return queues;
}

struct Groups : testing::Test {
    RuntimeTables tables;
    uint32_t group = makeGroup();
};

TEST_F(Groups, KeepTheHighestPriorityFirstAndTheFirstOfEqualOnes) {
    const Ids q = makeQueuesIn(group, {1, 3, 2, 3, 1, 2});
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

TEST_F(Groups, AndQueuesKnowEachOtherUntilOneIsRemoved) {
    const uint32_t other = makeGroup(), queue = makeQueue(), synchronous = makeQueue(true);
    EXPECT_FALSE(wasSignalled(group));
    for (const uint32_t each : {group, group, other})
        EXPECT_EQ(pelmoQueueGroup_Add(each, queue), kStatusSuccess);
    EXPECT_TRUE(wasSignalled(group));
    EXPECT_EQ(groupsOf(queue), (Ids{group, other}));

    EXPECT_EQ(pelmoQueueGroup_Add(group, synchronous), kStatusNoMemory);
    EXPECT_EQ(pelmoQueueGroup_Add(queue, kNoId), kStatusInvalidQueue);  // looked at first
    EXPECT_EQ(pelmoQueueGroup_Remove(group, synchronous), kStatusInvalidQueue);
    EXPECT_EQ(queuesOf(group), Ids{queue});

    EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), kStatusInvalidQueue);
    EXPECT_EQ(groupsOf(queue), Ids{other});
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
