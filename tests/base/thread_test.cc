#include "lib/base/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <vector>

#include "lib/base/cond.h"
#include "lib/base/thread_key.h"
#include "tests/support/fail_alloc.h"

namespace {

// Runs body(argument) on a thread of its own, to its end.
void runThread(ThreadFunction body, void* argument) {
    Thread thread;
    ASSERT_EQ(Thread_Init(&thread, body, argument), kStatusSuccess);
    EXPECT_EQ(Thread_Join(&thread), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(&thread), kStatusSuccess);
}

TEST(Thread, KnowsItselfAndDoesNotWaitForItself) {
    struct Seen {
        std::latch published{1};
        Thread* self = nullptr;
        bool isCurrent = false;
        uint64_t number = 0;
        pelmoStatus joined = kStatusSuccess;
    } seen;
    const auto body = [](void* argument) {
        auto* out = static_cast<Seen*>(argument);
        out->published.wait();
        out->isCurrent = Thread_IsCurrent(out->self);
        out->number = Thread_Number();
        out->joined = Thread_Join(out->self);
    };
    Thread* thread = nullptr;
    ASSERT_EQ(Thread_Create(&thread, body, &seen), kStatusSuccess);
    seen.self = thread;
    EXPECT_FALSE(Thread_IsCurrent(thread));
    seen.published.count_down();
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_TRUE(seen.isCurrent);
    EXPECT_NE(seen.number, Thread_Number());
    EXPECT_EQ(seen.joined, kStatusOsError);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
}

TEST(Thread, GoesOnWithoutItsRecord) {
    struct Meeting {
        std::latch recordGone{1}, done{1};
    } meeting;
    Thread* thread = nullptr;
    const auto body = [](void* argument) {
        auto* both = static_cast<Meeting*>(argument);
        both->recordGone.wait();
        both->done.count_down();
    };
    ASSERT_EQ(Thread_Create(&thread, body, &meeting), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
    meeting.recordGone.count_down();
    meeting.done.wait();
}

TEST(Thread, StartsThroughTheHook) {
    static std::string steps;
    steps.clear();
    const auto body = [](void*) { steps += "body "; };
    Thread_SetStartHook([](ThreadFunction function, void* argument) {
        steps += "before ";
        function(argument);
        steps += "after ";
    });
    runThread(body, nullptr);
    Thread_SetStartHook(nullptr);
    runThread(body, nullptr);
    EXPECT_EQ(steps, "before body after body ");
}

TEST(ThreadKey, HoldsAValueForEachThreadAndHandsItToTheDestructor) {
    static std::atomic<void*> destroyed;
    destroyed = nullptr;
    static ThreadKey* key;
    ASSERT_EQ(ThreadKey_Create(&key, [](void* value) { destroyed = value; }), kStatusSuccess);

    int mine = 0, others = 0;
    ASSERT_EQ(ThreadKey_Set(key, &mine), kStatusSuccess);
    const auto body = [](void* value) {
        void* found = value;
        EXPECT_EQ(ThreadKey_Get(key, &found), kStatusSuccess);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(ThreadKey_Set(key, value), kStatusSuccess);
    };
    runThread(body, &others);

    void* found = nullptr;
    EXPECT_EQ(ThreadKey_Get(key, &found), kStatusSuccess);
    EXPECT_EQ(found, &mine);
    EXPECT_EQ(destroyed, &others);
    EXPECT_EQ(ThreadKey_Destroy(key), kStatusSuccess);
}

TEST(ThreadKey, IsNotMadeWithoutAFreeSlot) {
    ThreadKey key;
    std::vector<ThreadKey> taken;
    while (ThreadKey_Init(&key, nullptr) == kStatusSuccess && taken.size() < 10000) {
        taken.push_back(key);
    }
    ThreadKey* none = nullptr;
    EXPECT_EQ(ThreadKey_Create(&none, nullptr), kStatusNoMemory);
    EXPECT_EQ(none, nullptr);
    for (ThreadKey& each : taken) {
        ThreadKey_Destroy(&each);
    }
}

template <typename Record, auto create, auto destroy, auto... arguments>
void makeOne() {
    Record* made = nullptr;
    const pelmoStatus status = create(&made, arguments...);
    EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
    EXPECT_EQ(made == nullptr, status != kStatusSuccess);
    if (made != nullptr) destroy(made);
}

void nothing(void*) {}

TEST(WithoutMemory, NoRecordIsHalfMade) {
    Thread* none = nullptr;
    EXPECT_EQ(Thread_Create(&none, nullptr, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(eachAllocationFails(makeOne<Lock, Lock_Create, Lock_Destroy, LockRank::kLeaf>), 2u);
    EXPECT_EQ(eachAllocationFails(makeOne<Cond, Cond_Create, Cond_Destroy>), 2u);
    EXPECT_EQ(eachAllocationFails(makeOne<ThreadKey, ThreadKey_Create, ThreadKey_Destroy, nothing>),
              2u);
    // The record and what the thread starts from.
    EXPECT_GE(eachAllocationFails(makeOne<Thread, Thread_Create, Thread_Destroy, nothing, nullptr>),
              4u);
}

}  // namespace
