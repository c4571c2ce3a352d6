#include "lib/base/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>

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
    static std::latch published(1);  // the record
    static Thread* thread;
    uint64_t number = Thread_Number();
    ASSERT_EQ(Thread_Create(
                  &thread,
                  [](void* creator) {
                      published.wait();
                      EXPECT_TRUE(Thread_IsCurrent(thread));
                      EXPECT_NE(Thread_Number(), *static_cast<uint64_t*>(creator));
                      EXPECT_EQ(Thread_Join(thread), kStatusOsError);
                  },
                  &number),
              kStatusSuccess);
    EXPECT_FALSE(Thread_IsCurrent(thread));
    published.count_down();
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
}

TEST(Thread, GoesOnWithoutItsRecord) {
    static std::latch recordGone(1), done(1);
    Thread* thread = nullptr;
    const auto body = [](void*) {
        recordGone.wait();
        done.count_down();
    };
    ASSERT_EQ(Thread_Create(&thread, body, nullptr), kStatusSuccess);
    EXPECT_EQ(Thread_Destroy(thread), kStatusSuccess);
    recordGone.count_down();
    done.wait();
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
    static ThreadKey key;
    ASSERT_EQ(ThreadKey_Init(&key, [](void* value) { destroyed = value; }), kStatusSuccess);

    int mine = 0, others = 0;
    ASSERT_EQ(ThreadKey_Set(&key, &mine), kStatusSuccess);
    const auto body = [](void* value) {
        void* found = value;
        EXPECT_EQ(ThreadKey_Get(&key, &found), kStatusSuccess);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(ThreadKey_Set(&key, value), kStatusSuccess);
    };
    runThread(body, &others);

    void* found = nullptr;
    EXPECT_EQ(ThreadKey_Get(&key, &found), kStatusSuccess);
    EXPECT_EQ(found, &mine);
    EXPECT_EQ(destroyed, &others);
    EXPECT_EQ(ThreadKey_Destroy(&key), kStatusSuccess);
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
