#include "lib/runtime/queue_group.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "lib/containers/dpa.h"
#include "lib/runtime/post.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/runtime_objects.h"

namespace {

using Ids = std::vector<uint32_t>;

Ids idsIn(const Dpa* list) {
    Ids ids;
    for (uint32_t i = 0; list != nullptr && i < list->count; ++i)
        ids.push_back(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(list->items[i])));
    return ids;
}

Ids queuesOf(uint32_t group) {
    Held<QueueGroup> held;
    EXPECT_EQ(held.get(group, IdAccess::kLocked), kStatusSuccess);
    return idsIn(held->queues);
}

Ids groupsOf(uint32_t queue) {
    Held<Queue> held;
    EXPECT_EQ(held.get(queue, IdAccess::kLocked), kStatusSuccess);
    return idsIn(held->groups);
}

// Has the group been signalled since it was last asked?
bool wasSignalled(uint32_t group) {
    Held<QueueGroup> held;
    EXPECT_EQ(held.get(group, IdAccess::kLocked), kStatusSuccess);
    return std::exchange(held->cond.signalled, false);
}

uint32_t makeGroup() {
    uint32_t group = kNoId;
    EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    return group;
}

uint32_t makeQueueOf(uint32_t priority) {
    const uint32_t queue = makeQueue();
    EXPECT_EQ(pelmoQueue_SetPriority(queue, priority), kStatusSuccess);
    return queue;
}

void destroyAll(const Ids& queues) {
    for (const uint32_t queue : queues)
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
}

struct Groups : testing::Test {
    RuntimeTables tables;
};

TEST_F(Groups, KeepTheHighestPriorityFirstAndTheFirstOfEqualOnes) {
    const uint32_t group = makeGroup();
    Ids queues;
    for (const uint32_t priority : {1, 3, 2, 3, 1, 2}) {
        queues.push_back(makeQueueOf(priority));
        EXPECT_EQ(pelmoQueueGroup_Add(group, queues.back()), kStatusSuccess);
    }
    const Ids& q = queues;
    EXPECT_EQ(queuesOf(group), (Ids{q[1], q[3], q[2], q[5], q[0], q[4]}));

    const struct {
        size_t queue;
        uint32_t priority;
        Ids order;
    } changes[] = {
        {1, 2, {q[3], q[2], q[5], q[1], q[0], q[4]}},  // behind those that were there
        {4, 9, {q[4], q[3], q[2], q[5], q[1], q[0]}},
        {3, 0, {q[4], q[2], q[5], q[1], q[0], q[3]}},
        {2, 2, {q[4], q[2], q[5], q[1], q[0], q[3]}},  // none: it keeps its place
    };
    for (const auto& change : changes) {
        EXPECT_EQ(pelmoQueue_SetPriority(q[change.queue], change.priority), kStatusSuccess);
        EXPECT_EQ(queuesOf(group), change.order);
    }
    destroyAll({q[4], q[0]});
    EXPECT_EQ(queuesOf(group), (Ids{q[2], q[5], q[1], q[3]}));
    EXPECT_EQ(pelmoQueueGroup_Destroy(group), kStatusSuccess);
    destroyAll({q[1], q[2], q[3], q[5]});
}

TEST_F(Groups, AndQueuesKnowEachOtherUntilOneIsRemoved) {
    const uint32_t group = makeGroup();
    const uint32_t other = makeGroup();
    const uint32_t queue = makeQueue();
    const uint32_t synchronous = makeQueue(true);
    EXPECT_FALSE(wasSignalled(group));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
    EXPECT_TRUE(wasSignalled(group));
    EXPECT_EQ(pelmoQueueGroup_Add(other, queue), kStatusSuccess);
    EXPECT_EQ(groupsOf(queue), (Ids{group, other}));
    EXPECT_EQ(queuesOf(group), Ids{queue});

    EXPECT_EQ(pelmoQueueGroup_Add(group, synchronous), kStatusNoMemory);
    EXPECT_EQ(pelmoQueueGroup_Add(group, group), kStatusInvalidQueue);
    EXPECT_EQ(pelmoQueueGroup_Add(queue, kNoId), kStatusInvalidQueue);
    EXPECT_EQ(pelmoQueueGroup_Add(queue, queue), kStatusInvalidQueueGroup);
    EXPECT_EQ(pelmoQueueGroup_Remove(queue, queue), kStatusInvalidQueueGroup);
    EXPECT_EQ(pelmoQueueGroup_Remove(group, synchronous), kStatusInvalidQueue);
    EXPECT_EQ(queuesOf(group), Ids{queue});

    EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), kStatusInvalidQueue);
    EXPECT_EQ(groupsOf(queue), Ids{other});
    EXPECT_EQ(queuesOf(group), Ids{});
    libraryOpen = false;
    uint32_t none = kNoId;
    EXPECT_EQ(pelmoQueueGroup_Create(&none), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueueGroup_Remove(group, queue), kStatusNotInitialized);
    for (const uint32_t each : {group, other})
        EXPECT_EQ(pelmoQueueGroup_Destroy(each), kStatusSuccess);
    EXPECT_EQ(pelmoQueueGroup_Destroy(group), kStatusInvalidQueueGroup);
    destroyAll({queue, synchronous});
}

TEST_F(Groups, AreAllSignalledByAPostHoweverMany) {
    for (const size_t many : {1u, 32u, 33u, 70u}) {
        const uint32_t queue = makeQueue();
        const TestEvent timer(kEventTimer, queue);
        Ids groups;
        for (size_t i = 0; i < many; ++i) {
            groups.push_back(makeGroup());
            EXPECT_EQ(pelmoQueueGroup_Add(groups.back(), queue), kStatusSuccess);
            EXPECT_TRUE(wasSignalled(groups.back()));
        }
        // A queue goes on naming one that is gone.
        const Ids named = groups;
        EXPECT_EQ(pelmoQueueGroup_Destroy(groups[many / 2]), kStatusSuccess);
        groups.erase(groups.begin() + static_cast<ptrdiff_t>(many / 2));
        EXPECT_EQ(groupsOf(queue), named);

        EXPECT_EQ(Event_Post(timer.event), kStatusSuccess);
        for (const uint32_t group : groups)
            EXPECT_TRUE(wasSignalled(group)) << many;
        EXPECT_EQ(pelmoQueue_SetPriority(queue, 5), kStatusSuccess);
        destroyAll({queue});
        for (const uint32_t group : groups) {
            EXPECT_EQ(queuesOf(group), Ids{});
            EXPECT_EQ(pelmoQueueGroup_Destroy(group), kStatusSuccess);
        }
    }
}

TEST_F(Groups, OutOfMemoryTakeNoQueue) {
    const Ids queues = {makeQueue(), makeQueue(), makeQueue(), makeQueue(), makeQueue()};
    const size_t failed = eachAllocationFails([&queues] {
        Ids groups;  // three of five: either side's list has to grow
        for (uint32_t group = kNoId; groups.size() < 3; groups.push_back(group)) {
            if (pelmoQueueGroup_Create(&group) != kStatusSuccess) break;
            for (const uint32_t queue : queues) {
                const bool in = pelmoQueueGroup_Add(group, queue) == kStatusSuccess;
                EXPECT_EQ(std::ranges::count(queuesOf(group), queue), in);
                EXPECT_EQ(std::ranges::count(groupsOf(queue), group), in);
            }
        }
        for (const uint32_t group : groups) {
            for (const uint32_t queue : queues)
                (void)pelmoQueueGroup_Remove(group, queue);
            EXPECT_EQ(pelmoQueueGroup_Destroy(group), kStatusSuccess);
        }
        for (const uint32_t queue : queues)
            EXPECT_EQ(groupsOf(queue), Ids{});
    });
    EXPECT_GT(failed, 10u);
    destroyAll(queues);
}

TEST_F(Groups, AreInOrderOnceAllPrioritiesHaveChanged) {
    const uint32_t group = makeGroup();
    const Ids queues = {makeQueueOf(1), makeQueueOf(2), makeQueueOf(3)};
    for (const uint32_t queue : queues)
        EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
    const auto change = [](uint32_t queue, uint32_t last) {
        for (uint32_t i = 0; i < 300; ++i)
            EXPECT_EQ(pelmoQueue_SetPriority(queue, i * 7 % 11), kStatusSuccess);
        EXPECT_EQ(pelmoQueue_SetPriority(queue, last), kStatusSuccess);
    };
    std::thread first(change, queues[0], 30), second(change, queues[1], 20);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(pelmoQueueGroup_Remove(group, queues[2]), kStatusSuccess);
        EXPECT_EQ(pelmoQueueGroup_Add(group, queues[2]), kStatusSuccess);
    }
    first.join();
    second.join();
    EXPECT_EQ(queuesOf(group), queues);
    EXPECT_EQ(pelmoQueueGroup_Destroy(group), kStatusSuccess);
    destroyAll(queues);
}

}  // namespace
