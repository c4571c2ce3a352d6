#include "lib/base/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <vector>

#include "lib/base/thread_key.h"
#include "tests/support/fail_alloc.h"

namespace {

TEST(Thread, RunsItsFunctionUntilJoined) {
    struct Seen {
        std::latch published{1};
        const Thread* self = nullptr;
        bool isCurrent = false;
        uint64_t number = 0;
    } seen;
    Thread* thread = nullptr;
    const auto body = [](void* argument) {
        auto* out = static_cast<Seen*>(argument);
        out->published.wait();
        out->isCurrent = Thread_IsCurrent(out->self);
        out->number = Thread_Number();
    };
    ASSERT_EQ(Thread_Create(&thread, body, &seen), kStatusSuccess);
    seen.self = thread;
    EXPECT_FALSE(Thread_IsCurrent(thread));
    seen.published.count_down();
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_EQ(Thread_Join(thread), kStatusSuccess);
    EXPECT_TRUE(seen.isCurrent);
    EXPECT_NE(seen.number, Thread_Number());
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

TEST(Thread, DoesNotWaitForItself) {
    struct Self {
        Thread thread;
        std::latch published{1};
        pelmoStatus status = kStatusSuccess;
    } self;
    const auto body = [](void* argument) {
        auto* own = static_cast<Self*>(argument);
        own->published.wait();
        own->status = Thread_Join(&own->thread);
    };
    ASSERT_EQ(Thread_Init(&self.thread, body, &self), kStatusSuccess);
    self.published.count_down();
    EXPECT_EQ(Thread_Join(&self.thread), kStatusSuccess);
    EXPECT_EQ(self.status, kStatusOsError);
    EXPECT_EQ(Thread_Destroy(&self.thread), kStatusSuccess);
}

TEST(Thread, StartsThroughTheHook) {
    static std::string steps;
    steps.clear();
    const auto body = [](void*) { steps += "body "; };
    const auto run = [body] {
        Thread thread;
        ASSERT_EQ(Thread_Init(&thread, body, nullptr), kStatusSuccess);
        Thread_Join(&thread);
        Thread_Destroy(&thread);
    };
    Thread_SetStartHook([](ThreadFunction function, void* argument) {
        steps += "before ";
        function(argument);
        steps += "after ";
    });
    run();
    Thread_SetStartHook(nullptr);
    run();
    EXPECT_EQ(steps, "before body after body ");
}

TEST(Thread, AnswersForArgumentsAndMemory) {
    const auto body = [](void* ran) { *static_cast<std::atomic<bool>*>(ran) = true; };
    Thread* none = nullptr;
    EXPECT_EQ(Thread_Create(nullptr, body, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(Thread_Create(&none, nullptr, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(Thread_Join(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(Thread_Destroy(nullptr), kStatusInvalidArgument);
    EXPECT_FALSE(Thread_IsCurrent(nullptr));

    const size_t failures = eachAllocationFails([body] {
        std::atomic<bool> ran = false;
        Thread* thread = nullptr;
        const pelmoStatus status = Thread_Create(&thread, body, &ran);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        EXPECT_EQ(thread == nullptr, status != kStatusSuccess);
        if (thread != nullptr) {
            Thread_Join(thread);
            Thread_Destroy(thread);
        }
        EXPECT_EQ(ran, status == kStatusSuccess);
    });
    EXPECT_GE(failures, 4u);  // the record and what the thread starts from
}

TEST(ThreadKey, HoldsAValueForEachThreadAndHandsItToTheDestructor) {
    static std::atomic<void*> destroyed;
    destroyed = nullptr;
    static ThreadKey* key;
    ASSERT_EQ(ThreadKey_Create(&key, [](void* value) { destroyed = value; }), kStatusSuccess);

    int mine = 0, others = 0;
    ASSERT_EQ(ThreadKey_Set(key, &mine), kStatusSuccess);
    Thread thread;
    const auto body = [](void* value) {
        void* found = value;
        EXPECT_EQ(ThreadKey_Get(key, &found), kStatusSuccess);
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(ThreadKey_Set(key, value), kStatusSuccess);
    };
    ASSERT_EQ(Thread_Init(&thread, body, &others), kStatusSuccess);
    Thread_Join(&thread);
    Thread_Destroy(&thread);

    void* found = nullptr;
    EXPECT_EQ(ThreadKey_Get(key, &found), kStatusSuccess);
    EXPECT_EQ(found, &mine);
    EXPECT_EQ(destroyed, &others);
    EXPECT_EQ(ThreadKey_Destroy(key), kStatusSuccess);
}

TEST(ThreadKey, AnswersForArgumentsSlotsAndMemory) {
    ThreadKey key;
    void* value;
    EXPECT_EQ(ThreadKey_Create(nullptr, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(ThreadKey_Init(nullptr, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(ThreadKey_Destroy(nullptr), kStatusInvalidArgument);
    EXPECT_EQ(ThreadKey_Get(nullptr, &value), kStatusInvalidArgument);
    EXPECT_EQ(ThreadKey_Get(&key, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(ThreadKey_Set(nullptr, nullptr), kStatusInvalidArgument);

    const size_t failures = eachAllocationFails([] {
        ThreadKey* made = nullptr;
        const pelmoStatus status = ThreadKey_Create(&made, nullptr);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        if (made != nullptr) ThreadKey_Destroy(made);
    });
    EXPECT_EQ(failures, 2u);

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

}  // namespace
