// Ids, on queues and groups.

#include "lib/runtime/id.h"

#include "tests/support/local_bus.h"

namespace {

struct Ids : testing::Test {
    const IdCounter former = idCounter;
    LocalBus bus;

    ~Ids() override { idCounter = former; }
};

// Ends the object alone, as its own call does after its checks.
pelmoStatus destroy(uint32_t id, IdType type = IdType::kQueue) {
    IdHeader* object = nullptr;
    const pelmoStatus status = Id_Get(id, type, &object, IdAccess::kDestroy);
    if (status == kStatusSuccess) Id_Release(object, false);
    return status;
}

TEST_F(Ids, CountUpToTheHighestNumberThenWrapPastThoseInUse) {
    const auto create = [](IdType type) {
        uint32_t id = kNoId;  // where none is free
        (void)(type == IdType::kQueue ? pelmoQueue_Create : pelmoQueueGroup_Create)(&id);
        return id;
    };
    testing::internal::CaptureStderr();
    idCounter = {.first = 1001, .last = UINT32_MAX, .previous = UINT32_MAX - 2};
    EXPECT_EQ(create(IdType::kQueue), UINT32_MAX - 1);
    EXPECT_EQ(create(IdType::kQueueGroup), UINT32_MAX);
    EXPECT_EQ(create(IdType::kQueue), 1001u);
    idCounter.previous = UINT32_MAX - 2;  // round once more: both ends are taken, by either type
    EXPECT_EQ(create(IdType::kQueueGroup), 1002u);
    idCounter.last = 1002;  // full until one comes back
    for (const uint32_t id : {1001u, 1002u, 1001u}) {
        const IdType type = id == 1002 ? IdType::kQueueGroup : IdType::kQueue;
        EXPECT_EQ(create(type), kNoId);
        EXPECT_EQ(create(type), kNoId);
        EXPECT_EQ(destroy(id, type), kStatusSuccess);
        EXPECT_EQ(create(type), id);
    }
    (void)testing::internal::GetCapturedStderr();
}

TEST_F(Ids, OfAFixedNumberBelongToOneObjectOfEachType) {
    const auto create = [](uint32_t id) {
        return Queue_Create(nullptr, id, "fixed", false, false);
    };
    EXPECT_EQ(create(1001), kStatusNoMemory);
    EXPECT_EQ(create(1000), kStatusSuccess);
    EXPECT_EQ(create(1000), kStatusNoMemory);
    EXPECT_EQ(create(kLocal), kStatusSuccess);

    // The number can be given again; a reference to the former object does not take it back.
    {
        Held<Queue> gone;
        EXPECT_EQ(gone.find(1000), kStatusSuccess);
        EXPECT_EQ(destroy(1000), kStatusSuccess);
        EXPECT_EQ(create(1000), kStatusSuccess);
        EXPECT_EQ(Id_Invalidate(&gone->header), kStatusInvalidArgument);
    }
    EXPECT_EQ(Id_Check(1000, IdType::kQueue), kStatusSuccess);
}

TEST_F(Ids, LeadToObjectsOfTheirTypeUntilTheseEnd) {
    const uint32_t id = makeQueue();
    IdHeader* object = nullptr;
    EXPECT_EQ(Id_Get(id, IdType::kQueue, nullptr, IdAccess::kDestroy), kStatusInvalidArgument);
    EXPECT_EQ(Id_Get(id, IdType::kEvent, &object, IdAccess::kDestroy), kStatusInvalidType);
    EXPECT_EQ(Id_Check(id, IdType::kEvent), kStatusInvalidType);
    EXPECT_EQ(Id_Get(id + 1, IdType::kQueue, &object, IdAccess::kDestroy), kStatusNotFound);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(destroy(id), kStatusSuccess);
    EXPECT_EQ(destroy(id), kStatusNotFound);

    // The last reference of what wasn't destroyed withdraws the id.
    const uint32_t other = makeQueue();
    EXPECT_EQ(Id_Release(&recordOf<Queue>(other)->header, false), kStatusSuccess);
    EXPECT_EQ(Id_Check(other, IdType::kQueue), kStatusNotFound);
}

TEST_F(Ids, AreInvalidOnlyUnderTheFlagsLock) {
    const uint32_t id = makeQueue();
    Held<Queue> queue;
    ASSERT_EQ(queue.find(id), kStatusSuccess);
    Lock_Enter(&queue->dataLock);
    std::thread destroyer([id] { EXPECT_EQ(destroy(id), kStatusSuccess); });
    EXPECT_TRUE(within(60, [&] { return Id_Check(id, IdType::kQueue) != kStatusSuccess; }));
    EXPECT_FALSE(Id_IsInvalid(&queue->header));
    Lock_Leave(&queue->dataLock);
    destroyer.join();
    EXPECT_TRUE(Id_IsInvalid(&queue->header));
}

// Two destroy, two look: one of the destroyers has it, and the others get a live object or none.
TEST_F(Ids, AreDestroyedOnceWhileTheyAreLookedUp) {
    constexpr int kRounds = 300;
    std::vector<uint32_t> ids(kRounds);
    for (uint32_t& id : ids)
        id = makeQueue();
    std::atomic<int> succeeded = 0;
    race(4, kRounds, [&](int thread, int round) {
        const uint32_t id = ids[static_cast<size_t>(round)];
        if (thread < 2) {
            succeeded += destroy(id) == kStatusSuccess ? 1 : 0;
            return;
        }
        for (;;) {
            Held<Queue> queue;
            if (queue.findLocked(id) != kStatusSuccess) break;
            EXPECT_FALSE(Id_IsInvalid(&queue->header));
        }
    });
    EXPECT_EQ(succeeded, kRounds);
}

}  // namespace
