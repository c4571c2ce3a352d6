#include "lib/runtime/id.h"

#include <atomic>

#include "tests/support/runtime_objects.h"
#include "tests/support/test.h"

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

struct Ids : testing::Test {
    const IdCounter former = idCounter;
    RuntimeTables tables;

    ~Ids() override { idCounter = former; }
};

TEST_F(Ids, CountUpToTheHighestNumberThenWrapPastThoseInUse) {
    idCounter = {.first = 1001, .last = UINT32_MAX, .previous = UINT32_MAX - 2};
    EXPECT_EQ(publish(), UINT32_MAX - 1);
    EXPECT_EQ(publish(IdType::kQueue), UINT32_MAX);
    EXPECT_EQ(publish(), 1001u);
    idCounter.previous = UINT32_MAX - 2;  // round once more: both ends are taken, by either type
    EXPECT_EQ(publish(IdType::kTransport), 1002u);
    idCounter.last = 1002;  // full until one comes back
    for (const uint32_t id : {1001u, 1002u, 1001u}) {
        EXPECT_EQ(publish(), kNoId);
        EXPECT_EQ(publish(), kNoId);
        EXPECT_EQ(destroy(id, id == 1002 ? IdType::kTransport : IdType::kEvent), kStatusSuccess);
        EXPECT_EQ(publish(id == 1002 ? IdType::kTransport : IdType::kEvent), id);
    }
}

TEST_F(Ids, OfAFixedNumberBelongToOneObjectOfEachType) {
    Thing* queue = newThing(IdType::kQueue);
    Thing* other = newThing(IdType::kQueue);
    EXPECT_EQ(Id_SetFixed(&queue->header, 0), kStatusInvalidArgument);
    EXPECT_EQ(Id_SetFixed(&queue->header, 1001), kStatusInvalidArgument);
    EXPECT_EQ(Id_SetFixed(&queue->header, 1000), kStatusSuccess);
    EXPECT_EQ(Id_SetFixed(&other->header, 1000), kStatusNotPermitted);
    EXPECT_EQ(Id_SetFixed(&newThing(IdType::kTransport)->header, 10), kStatusSuccess);
    EXPECT_EQ(Id_SetFixed(&other->header, 10), kStatusSuccess);

    // The number can be given again; a reference to the former object does not take it back.
    Id_AddRef(&queue->header);
    EXPECT_EQ(destroy(1000, IdType::kQueue), kStatusSuccess);
    EXPECT_EQ(Id_SetFixed(&newThing(IdType::kQueue)->header, 1000), kStatusSuccess);
    EXPECT_EQ(Id_Invalidate(&queue->header), kStatusInvalidArgument);
    Id_Release(&queue->header, false);
    EXPECT_EQ(Id_Check(1000, IdType::kQueue), kStatusSuccess);
}

TEST_F(Ids, LeadToACountedReferenceOfTheirTypeAlone) {
    const uint32_t id = publish(IdType::kQueue);
    IdHeader* object = nullptr;
    EXPECT_EQ(Id_Get(id, IdType::kQueue, nullptr, IdAccess::kDestroy), kStatusInvalidArgument);
    EXPECT_EQ(Id_Get(id, IdType::kEvent, &object, IdAccess::kDestroy), kStatusInvalidType);
    EXPECT_EQ(Id_Check(id, IdType::kEvent), kStatusInvalidType);
    EXPECT_EQ(Id_Get(id + 1, IdType::kQueue, &object, IdAccess::kDestroy), kStatusNotFound);
    EXPECT_EQ(object, nullptr);

    const struct {
        IdAccess access;
        bool locked, ends;
    } rows[] = {{IdAccess::kUnlocked, false, false},
                {IdAccess::kLocked, true, false},
                {IdAccess::kDestroyLocked, true, true}};
    for (const auto& [access, locked, ends] : rows) {
        ASSERT_EQ(Id_Get(id, IdType::kQueue, &object, access), kStatusSuccess);
        EXPECT_EQ(object->refCount, ends ? 1 : 2);
        EXPECT_EQ(isFree(object->lock), !locked);
        EXPECT_EQ(Id_IsInvalid(object), ends);
        EXPECT_EQ(Id_Check(id, IdType::kQueue), ends ? kStatusNotFound : kStatusSuccess);
        destructed = 0;
        EXPECT_EQ(Id_Release(object, locked), kStatusSuccess);
        EXPECT_EQ(destructed, ends ? 1 : 0);
    }
    EXPECT_EQ(destroy(id, IdType::kQueue), kStatusNotFound);
}

TEST_F(Ids, AreWithdrawnWithTheLastReferenceOfWhatWasNotDestroyed) {
    IdHeader* const thing = &newThing()->header;
    uint32_t id = kNoId;
    ASSERT_EQ(Id_SetGlobal(thing, &id), kStatusSuccess);
    EXPECT_EQ(Id_Release(thing, false), kStatusSuccess);
    EXPECT_EQ(Id_Check(id, IdType::kEvent), kStatusNotFound);
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
    EXPECT_TRUE(within(60, [&] { return Id_Check(id, IdType::kQueue) != kStatusSuccess; }));
    EXPECT_FALSE(Id_IsInvalid(&thing->header));
    Lock_Leave(&flagLock);
    destroyer.join();
    EXPECT_TRUE(Id_IsInvalid(&thing->header));
    Id_Release(&thing->header, false);
}

// Two destroy, two look: one of the destroyers has it, and the others get a live object or none.
TEST_F(Ids, AreDestroyedOnceWhileTheyAreLookedUp) {
    constexpr int kRounds = 300;
    std::vector<uint32_t> ids(kRounds);
    for (uint32_t& id : ids)
        id = publish();
    std::atomic<int> succeeded = 0;
    destructed = 0;
    race(4, kRounds, [&](int thread, int round) {
        const uint32_t id = ids[static_cast<size_t>(round)];
        if (thread < 2) {
            if (destroy(id) == kStatusSuccess) ++succeeded;
            return;
        }
        IdHeader* object = nullptr;
        while (Id_Get(id, IdType::kEvent, &object, IdAccess::kLocked) == kStatusSuccess) {
            EXPECT_EQ(reinterpret_cast<Thing*>(object)->mark, kAlive);
            EXPECT_FALSE(Id_IsInvalid(object));
            Id_Release(object, true);
        }
    });
    EXPECT_EQ(succeeded, kRounds);
    EXPECT_EQ(destructed, kRounds);
}

}  // namespace
