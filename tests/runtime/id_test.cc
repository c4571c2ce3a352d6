#include "lib/runtime/id.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "lib/runtime/id_counter.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/race.h"
#include "tests/support/runtime_objects.h"

namespace {

constexpr uint32_t kAlive = 0x600d600d;

std::atomic<int> destructed = 0;

struct Thing {
    IdHeader header;
    uint32_t mark;
};

Thing* newThing(IdType type = IdType::kEvent) {
    auto* thing = new Thing{};
    const auto destruct = [](IdHeader* object) {
        ++destructed;
        delete reinterpret_cast<Thing*>(object);
    };
    EXPECT_EQ(Id_Init(&thing->header, type, destruct), kStatusSuccess);
    thing->mark = kAlive;
    return thing;
}

// The id of a new thing; 0, and no thing, where none is free.
uint32_t publish(IdType type = IdType::kEvent) {
    Thing* thing = newThing(type);
    uint32_t id = kNoId;
    if (Id_SetGlobal(&thing->header, &id) != kStatusSuccess) Id_Release(&thing->header, false);
    return id;
}

pelmoStatus destroy(uint32_t id, IdType type = IdType::kEvent) {
    IdHeader* object = nullptr;
    const pelmoStatus status = Id_Get(id, type, &object, IdAccess::kDestroy);
    if (status == kStatusSuccess) Id_Release(object, false);
    return status;
}

// Ids as told, for as long as it exists.
struct IdSpace {
    IdCounter former = idCounter;
    explicit IdSpace(IdCounter counter) { idCounter = counter; }
    ~IdSpace() { idCounter = former; }
};

struct Ids : testing::Test {
    RuntimeTables tables;
};

TEST_F(Ids, CountUpToTheHighestNumberThenWrapPastThoseInUse) {
    const IdSpace space({.first = 1001, .last = UINT32_MAX, .previous = UINT32_MAX - 2});
    const uint32_t taken[] = {publish(), publish(IdType::kQueue)};
    EXPECT_EQ(taken[0], UINT32_MAX - 1);
    EXPECT_EQ(taken[1], UINT32_MAX);
    EXPECT_EQ(publish(), 1001u);
    idCounter.previous = UINT32_MAX - 2;  // round once more: both ends are taken, by either type
    EXPECT_EQ(publish(IdType::kTransport), 1002u);
    for (const uint32_t id : {taken[0], 1001u})
        EXPECT_EQ(destroy(id), kStatusSuccess);
    EXPECT_EQ(destroy(taken[1], IdType::kQueue), kStatusSuccess);
    EXPECT_EQ(destroy(1002, IdType::kTransport), kStatusSuccess);
}

TEST_F(Ids, ASpaceThatIsFullGivesNoneUntilOneComesBack) {
    const IdSpace space({.first = 1001, .last = 1004});
    for (uint32_t id = 1001; id <= 1004; ++id)
        EXPECT_EQ(publish(), id);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(publish(), kNoId);
    for (const uint32_t id : {1003u, 1001u, 1004u}) {
        EXPECT_EQ(destroy(id), kStatusSuccess);
        EXPECT_EQ(publish(), id);
        EXPECT_EQ(publish(), kNoId);
    }
    for (uint32_t id = 1001; id <= 1004; ++id)
        EXPECT_EQ(destroy(id), kStatusSuccess);
}

TEST_F(Ids, GoOnCountingWithNewTables) {
    const uint32_t id = publish();
    EXPECT_EQ(destroy(id), kStatusSuccess);
    idTablesDestroy();
    ASSERT_EQ(idTablesCreate(), kStatusSuccess);
    EXPECT_EQ(publish(), id + 1);
    EXPECT_EQ(destroy(id + 1), kStatusSuccess);
}

TEST_F(Ids, OfAFixedNumberBelongToOneObjectOfEachType) {
    Thing* queue = newThing(IdType::kQueue);
    Thing* other = newThing(IdType::kQueue);
    Thing* transport = newThing(IdType::kTransport);
    EXPECT_EQ(Id_SetFixed(&queue->header, 0), kStatusInvalidArgument);
    EXPECT_EQ(Id_SetFixed(&queue->header, 1001), kStatusInvalidArgument);
    EXPECT_EQ(Id_SetFixed(&queue->header, 1000), kStatusSuccess);
    EXPECT_EQ(Id_SetFixed(&other->header, 1000), kStatusNotPermitted);
    EXPECT_EQ(Id_SetFixed(&transport->header, 10), kStatusSuccess);
    EXPECT_EQ(Id_Check(10, IdType::kQueue), kStatusNotFound);
    EXPECT_EQ(Id_Check(10, IdType::kTransport), kStatusSuccess);
    EXPECT_EQ(Id_SetFixed(&other->header, 10), kStatusSuccess);

    // The number passes on; what still holds the former object takes it from nobody.
    Id_AddRef(&queue->header);
    EXPECT_EQ(destroy(1000, IdType::kQueue), kStatusSuccess);
    Thing* next = newThing(IdType::kQueue);
    EXPECT_EQ(Id_SetFixed(&next->header, 1000), kStatusSuccess);
    EXPECT_EQ(Id_Invalidate(&queue->header), kStatusInvalidArgument);
    Id_Release(&queue->header, false);
    EXPECT_EQ(Id_Check(1000, IdType::kQueue), kStatusSuccess);
    for (const uint32_t id : {10u, 1000u})
        EXPECT_EQ(destroy(id, IdType::kQueue), kStatusSuccess);
    EXPECT_EQ(destroy(10, IdType::kTransport), kStatusSuccess);
}

TEST_F(Ids, LeadToACountedReferenceOfTheirTypeAlone) {
    const uint32_t id = publish(IdType::kQueue);
    IdHeader* object = nullptr;
    EXPECT_EQ(Id_Get(id, IdType::kQueue, nullptr, IdAccess::kDestroy), kStatusInvalidArgument);
    EXPECT_EQ(Id_Get(id, IdType::kEvent, &object, IdAccess::kDestroy), kStatusInvalidType);
    EXPECT_EQ(Id_Check(id, IdType::kEvent), kStatusInvalidType);
    EXPECT_EQ(Id_Get(id + 1, IdType::kQueue, &object, IdAccess::kDestroy), kStatusNotFound);
    EXPECT_EQ(object, nullptr);

    struct Row {
        IdAccess access;
        bool locked;
        bool ends;
    };
    const Row rows[] = {{IdAccess::kUnlocked, false, false},
                        {IdAccess::kLocked, true, false},
                        {IdAccess::kDestroyLocked, true, true}};
    for (const Row& row : rows) {
        ASSERT_EQ(Id_Get(id, IdType::kQueue, &object, row.access), kStatusSuccess);
        EXPECT_EQ(object->refCount, row.ends ? 1 : 2);
        EXPECT_EQ(isFree(object->lock), !row.locked);
        EXPECT_EQ(Id_IsInvalid(object), row.ends);
        EXPECT_EQ(Id_Check(id, IdType::kQueue), row.ends ? kStatusNotFound : kStatusSuccess);
        destructed = 0;
        EXPECT_EQ(Id_Release(object, row.locked), kStatusSuccess);
        EXPECT_EQ(destructed, row.ends ? 1 : 0);
    }
    EXPECT_EQ(destroy(id, IdType::kQueue), kStatusNotFound);
}

TEST_F(Ids, EndByWithdrawalOrWithALastReferenceThatNobodyDestroyed) {
    const IdSpace space({.first = 1001, .last = 1001});
    for (const bool withdrawn : {true, false, true}) {
        Thing* thing = newThing();
        EXPECT_EQ(Id_Invalidate(&thing->header), kStatusInvalidArgument);
        EXPECT_FALSE(Id_IsInvalid(&thing->header));
        ASSERT_EQ(Id_SetGlobal(&thing->header, nullptr), kStatusSuccess);
        if (withdrawn) {
            EXPECT_EQ(Id_Invalidate(&thing->header), kStatusSuccess);
            EXPECT_EQ(Id_Invalidate(&thing->header), kStatusInvalidArgument);
            EXPECT_EQ(destroy(1001), kStatusNotFound);
        }
        EXPECT_EQ(Id_Release(&thing->header, false), kStatusSuccess);
        EXPECT_EQ(Id_Check(1001, IdType::kEvent), kStatusNotFound);
    }
}

TEST_F(Ids, AreInvalidOnlyUnderTheFlagsLock) {
    Lock flagLock = PELMO_LOCK_READY(LockRank::kQueueData);
    Thing* thing = newThing(IdType::kQueue);
    thing->header.flagLock = &flagLock;
    uint32_t id = kNoId;
    ASSERT_EQ(Id_SetGlobal(&thing->header, &id), kStatusSuccess);
    Id_AddRef(&thing->header);
    Lock_Enter(&flagLock);
    std::thread destroyer([id] { EXPECT_EQ(destroy(id, IdType::kQueue), kStatusSuccess); });
    while (Id_Check(id, IdType::kQueue) == kStatusSuccess)
        std::this_thread::yield();
    EXPECT_FALSE(Id_IsInvalid(&thing->header));
    Lock_Leave(&flagLock);
    destroyer.join();
    EXPECT_TRUE(Id_IsInvalid(&thing->header));
    Id_Release(&thing->header, false);
}

TEST(IdsWithoutTables, AreRefused) {
    Thing* thing = newThing();
    IdHeader* object = nullptr;
    EXPECT_EQ(Id_SetGlobal(&thing->header, nullptr), kStatusNotInitialized);
    EXPECT_EQ(Id_SetFixed(&thing->header, 1), kStatusNotInitialized);
    EXPECT_EQ(Id_Invalidate(&thing->header), kStatusNotInitialized);
    EXPECT_EQ(Id_Get(1001, IdType::kEvent, &object, IdAccess::kLocked), kStatusNotInitialized);
    EXPECT_EQ(Id_Check(1001, IdType::kEvent), kStatusInvalidArgument);
    destructed = 0;
    EXPECT_EQ(Id_Release(&thing->header, false), kStatusInvalidArgument);
    EXPECT_EQ(destructed, 1);
}

TEST(IdsOutOfMemory, LeaveNoTablesHalfMadeAndNoNumberTaken) {
    const size_t failed = eachAllocationFails([] {
        const pelmoStatus status = idTablesCreate();
        const bool whole = allocationsFailed() == 0;
        EXPECT_EQ(status, whole ? kStatusSuccess : kStatusNoMemory);
        EXPECT_EQ(Id_Check(1001, IdType::kEvent), whole ? kStatusNotFound : kStatusInvalidArgument);
        idTablesDestroy();
    });
    EXPECT_GT(failed, 6u);

    const RuntimeTables tables;
    const IdSpace space({.first = 1001, .last = 1002});
    testing::internal::CaptureStderr();
    const size_t refused = eachAllocationFails([] {
        Thing* thing = newThing();
        uint32_t id = kNoId;
        if (Id_SetGlobal(&thing->header, &id) == kStatusSuccess) {
            EXPECT_EQ(destroy(id), kStatusSuccess);
            return;
        }
        EXPECT_NE(allocationsFailed(), 0u);
        EXPECT_EQ(thing->header.id, kNoId);
        allocationsHeal();
        const uint32_t both[] = {publish(), publish()};
        for (const uint32_t each : both)
            EXPECT_EQ(destroy(each), kStatusSuccess);
        Id_Release(&thing->header, false);
    });
    EXPECT_GT(refused, 1u);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("Out of memory trying to set a global Id"), std::string::npos);
    EXPECT_NE(told.find("Out of memory trying to set an Id"), std::string::npos);
}

TEST_F(Ids, AreDestroyedByOneOfManyWhoTry) {
    constexpr int kRounds = 300;
    std::vector<uint32_t> ids(kRounds);
    for (uint32_t& id : ids)
        id = publish();
    std::atomic<int> succeeded = 0;
    destructed = 0;
    race(4, kRounds, [&](int, int round) {
        if (destroy(ids[static_cast<size_t>(round)]) == kStatusSuccess) ++succeeded;
    });
    EXPECT_EQ(succeeded, kRounds);
    EXPECT_EQ(destructed, kRounds);
}

TEST_F(Ids, LeadToALiveObjectOrNoneWhileItIsDestroyed) {
    constexpr int kRounds = 300;
    std::vector<uint32_t> ids(kRounds);
    for (uint32_t& id : ids)
        id = publish();
    destructed = 0;
    race(3, kRounds, [&](int thread, int round) {
        const uint32_t id = ids[static_cast<size_t>(round)];
        if (thread == 0) {
            EXPECT_EQ(destroy(id), kStatusSuccess);
            return;
        }
        IdHeader* object = nullptr;
        while (Id_Get(id, IdType::kEvent, &object, IdAccess::kLocked) == kStatusSuccess) {
            EXPECT_EQ(reinterpret_cast<Thing*>(object)->mark, kAlive);
            EXPECT_FALSE(Id_IsInvalid(object));
            Id_Release(object, true);
        }
    });
    EXPECT_EQ(destructed, kRounds);
}

}  // namespace
