// Dispatchers: how their threads end and tell of it, who may destroy and join them, and that the
// end of one disturbs nobody else who waits on its queue.

#include "lib/runtime/dispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>

#include "lib/runtime/dispatch.h"
#include "tests/runtime/dispatch_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

uint32_t newDispatcher(uint32_t dispatchable, double seconds) {
    uint32_t dispatcher = kNoId;
    EXPECT_EQ(pelmoDispatcher_CreateEx(&dispatcher, dispatchable, seconds), kStatusSuccess);
    return dispatcher;
}

uint32_t newGroup() {
    uint32_t group = kNoId;
    EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    return group;
}

TEST(Dispatcher, TellsHowItsThreadEnded) {
    struct Ids {
        uint32_t queue, group, dispatcher;
    };
    const struct {
        const char* name;
        bool onGroup;
        double seconds;
        void (*end)(const Ids&);
        Advisory expected;
    } cases[] = {
        {nullptr, false, 0.001, [](const Ids&) {}, {"dispatcher", 50, "Operation timed out"}},
        {nullptr, true, 0.001, [](const Ids&) {}, {"dispatcher", 50, "Operation timed out"}},
        {"worker",
         false,
         -1.0,
         [](const Ids& ids) { pelmoQueue_DestroyEx(ids.queue, nullptr, nullptr); },
         {"worker", 62, "Invalid queue"}},
        {"w",
         true,
         -1.0,
         [](const Ids& ids) { pelmoQueueGroup_Destroy(ids.group); },
         {"w", 63, "Invalid queue group"}},
        {"",
         false,
         -1.0,
         [](const Ids& ids) { pelmoDispatcher_Destroy(ids.dispatcher); },
         {"", 53, "Invalid dispatcher"}},
        {nullptr,
         true,
         -1.0,
         [](const Ids& ids) { pelmoDispatcher_Destroy(ids.dispatcher); },
         {"dispatcher", 53, "Invalid dispatcher"}},
    };
    for (const auto& [name, onGroup, seconds, end, expected] : cases) {
        SCOPED_TRACE(expected.subject + " " + expected.description);
        const DispatchStand stand;
        Ids ids{newQueue(), newGroup(), kNoId};
        ids.dispatcher = newDispatcher(onGroup ? ids.group : ids.queue, seconds);
        if (name != nullptr) {
            EXPECT_EQ(pelmoDispatcher_SetName(ids.dispatcher, name), kStatusSuccess);
        }
        // One that is destroyed before its thread has begun ends silently.
        if (seconds < 0 && onGroup) awaitWaiters<QueueGroup>(ids.group, 1);
        if (seconds < 0 && !onGroup) awaitWaiters<Queue>(ids.queue, 1);
        end(ids);
        Advisory wanted = expected;
        wanted.subject = "_PM.INFO.SYSTEM.DISPATCHER.THREAD_EXITED." + expected.subject;
        EXPECT_EQ(DispatchStand::firstAdvisory(), wanted);
        pelmoDispatcher_Destroy(ids.dispatcher);
        pelmoQueueGroup_Destroy(ids.group);
        pelmoQueue_DestroyEx(ids.queue, nullptr, nullptr);
    }
}

TEST(Dispatcher, RefusesWhatItIsNot) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const uint32_t dispatcher = newDispatcher(queue, -1.0);
    uint32_t out = 77;
    const char* name = nullptr;
    EXPECT_EQ(pelmoDispatcher_CreateEx(nullptr, queue, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoDispatcher_CreateEx(&out, dispatcher, 0), kStatusInvalidArgument);
    EXPECT_EQ(pelmoDispatcher_CreateEx(&out, 0, 0), kStatusInvalidArgument);
    EXPECT_EQ(out, 77U);
    EXPECT_EQ(pelmoDispatcher_Join(queue), kStatusInvalidDispatcher);
    EXPECT_EQ(pelmoDispatcher_GetName(queue, &name), kStatusInvalidQueue);
    EXPECT_EQ(pelmoDispatcher_GetName(dispatcher, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoDispatcher_SetName(queue, "a"), kStatusInvalidDispatcher);
    EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, nullptr), kStatusInvalidArgument);

    EXPECT_EQ(pelmoDispatcher_GetName(dispatcher, &name), kStatusSuccess);
    EXPECT_STREQ(name, "dispatcher");
    EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, "first"), kStatusSuccess);
    {
        FailAlloc fail{.after = 0};
        EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, "second"), kStatusNoMemory);
    }
    EXPECT_EQ(pelmoDispatcher_GetName(dispatcher, &name), kStatusSuccess);
    EXPECT_STREQ(name, "first");

    EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
    EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusInvalidDispatcher);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

TEST(Dispatcher, LeavesNothingBehindWithoutMemory) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const size_t failing = eachAllocationFails([queue] {
        uint32_t dispatcher = kNoId;
        const pelmoStatus status = pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        if (status == kStatusSuccess) pelmoDispatcher_Destroy(dispatcher);
    });
    EXPECT_GT(failing, 1U);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

// The thread ends when the callback has returned; those who joined it meanwhile wait for that.
TEST(Dispatcher, IsDestroyedByItsOwnCallback) {
    struct Meeting {
        std::latch created{1}, joining{2};
        uint32_t dispatcher = kNoId;
        std::atomic<bool> returned = false;
    } meeting;
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const uint32_t event = listen(
        queue,
        [](uint32_t, pelmoMsg*, void* closure) {
            auto* at = static_cast<Meeting*>(closure);
            at->created.wait();
            EXPECT_EQ(pelmoDispatcher_Join(at->dispatcher), kStatusOsError);
            at->joining.wait();
            EXPECT_EQ(pelmoDispatcher_Destroy(at->dispatcher), kStatusSuccess);
            EXPECT_EQ(pelmoDispatcher_Destroy(at->dispatcher), kStatusInvalidDispatcher);
            at->returned = true;
        },
        &meeting);
    post(queue, {event, event, event});
    meeting.dispatcher = newDispatcher(queue, -1.0);
    meeting.created.count_down();
    std::vector<std::thread> joiners;
    for (int i = 0; i < 2; ++i) {
        joiners.emplace_back([&] {
            meeting.joining.count_down();
            // The callback may have destroyed it first.
            if (pelmoDispatcher_Join(meeting.dispatcher) == kStatusSuccess) {
                EXPECT_TRUE(meeting.returned);
            }
        });
    }
    for (std::thread& joiner : joiners)
        joiner.join();
    EXPECT_EQ(DispatchStand::firstAdvisory().status, kStatusInvalidDispatcher);
    uint32_t left = 0;
    EXPECT_EQ(pelmoQueue_GetCount(queue, &left), kStatusSuccess);
    EXPECT_EQ(left, 2U);
    pelmoEvent_DestroyEx(event, nullptr);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

std::atomic<int> dispatched;

void count(uint32_t, pelmoMsg*, void*) {
    ++dispatched;
}

// Others wake at the stop of one, and wait on.
TEST(Dispatcher, EndsAloneAmongWaiters) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const uint32_t event = listen(queue, count);
    dispatched = 0;
    const uint32_t stopped = newDispatcher(queue, -1.0);
    const uint32_t other = newDispatcher(queue, -1.0);
    std::thread plain([queue] {
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, -1.0), kStatusSuccess);
        EXPECT_GT(dispatched, 0);
    });
    awaitWaiters<Queue>(queue, 3);
    EXPECT_EQ(pelmoDispatcher_Destroy(stopped), kStatusSuccess);
    awaitWaiters<Queue>(queue, 2);
    EXPECT_EQ(pelmoDispatcher_Destroy(other), kStatusSuccess);
    awaitWaiters<Queue>(queue, 1);
    post(queue, {event});
    plain.join();
    EXPECT_EQ(dispatched, 1);
    pelmoEvent_DestroyEx(event, nullptr);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

// Dispatchers come and go on one queue and its group while entries are posted: each destroy comes
// back, and with the last of them no entry is lost or left lying.
TEST(DispatcherStress, LosesNoEntryAndNoStop) {
    constexpr int kPosts = 3000;
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const uint32_t group = newGroup();
    ASSERT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
    const uint32_t event = listen(queue, count);
    dispatched = 0;
    const uint32_t steady[] = {newDispatcher(queue, -1.0), newDispatcher(group, -1.0)};
    std::atomic<bool> posting = true;
    std::vector<std::thread> threads;
    for (const uint32_t dispatchable : {queue, group}) {
        threads.emplace_back([&posting, dispatchable] {
            while (posting) {
                const uint32_t pair[] = {newDispatcher(dispatchable, -1.0),
                                         newDispatcher(dispatchable, -1.0)};
                for (const uint32_t dispatcher : pair)
                    EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
            }
        });
    }
    for (int i = 0; i < kPosts; i += 3)
        post(queue, {event, event, event});
    posting = false;
    for (std::thread& thread : threads)
        thread.join();
    while (dispatched < kPosts)
        std::this_thread::yield();
    EXPECT_EQ(dispatched, kPosts);
    for (const uint32_t dispatcher : steady)
        EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
    pelmoQueueGroup_Destroy(group);
    pelmoEvent_DestroyEx(event, nullptr);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

}  // namespace
