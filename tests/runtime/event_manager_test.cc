#include "lib/runtime/event_manager.h"

#include <algorithm>
#include <latch>
#include <memory>
#include <span>
#include <thread>

#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"

namespace {

// On real clocks, with the event manager's own threads.
struct EventManagers : testing::Test {
    void start() {
        ASSERT_EQ(EventManager_Start(), kStatusSuccess);
        ASSERT_EQ(EventManager_StartIo(1), kStatusSuccess);
    }
    ~EventManagers() override {
        EventManager_Stop();
        endAllEvents();
    }

    static void countDownOnce(uint32_t event, pelmoMsg*, void*) {
        pelmoEvent_DestroyEx(
            event, [](uint32_t, void* latch) { static_cast<std::latch*>(latch)->count_down(); });
    }

    // Fires once on the queue and is gone.
    static void fireOnce(uint32_t queue) {
        std::latch fired{1};
        uint32_t timer = kNoId;
        ASSERT_EQ(pelmoEvent_CreateTimer(&timer, queue, countDownOnce, 0.001, &fired),
                  kStatusSuccess);
        fired.wait();
    }

    // Is a poll under way that has the socket in it?
    static bool isPolled(int source) {
        LockGuard guard(evmLock);
        const IoThread* const io = ioThreadAtLocked(0);
        const std::span<const pollfd> pass{io->sockets.pass, io->sockets.passCount};
        return io->inPoll && std::ranges::find(pass, source, &pollfd::fd) != pass.end();
    }

    RuntimeTables tables;
};

TEST_F(EventManagers, OpenAndCloseAgain) {
    for (int i = 0; i < 20; ++i) {
        start();
        fireOnce(kTimerQueueId);
        SocketPair pair;
        std::latch ready{1};
        uint32_t event = kNoId;
        ASSERT_EQ(pelmoEvent_CreateIO(&event, kFirstIoQueueId, countDownOnce, pair.ends[0], kIoRead,
                                      &ready),
                  kStatusSuccess);
        pair.ready();  // the thread's wait takes up a socket that came later
        ready.wait();
        pelmoEvent_DestroyEx(event, nullptr);
        uint32_t left = kNoId;  // not destroyed ahead of the stop
        ASSERT_EQ(pelmoEvent_CreateTimer(&left, kTimerQueueId, ignoreEvent, 0.5, nullptr),
                  kStatusSuccess);
        EventManager_Stop();
        EXPECT_EQ(Id_Check(kTimerQueueId, IdType::kQueue), kStatusNotFound);
        EXPECT_EQ(Id_Check(kFirstIoQueueId, IdType::kQueue), kStatusNotFound);
        EXPECT_EQ(pelmoEvent_DestroyEx(left, nullptr), kStatusSuccess);
    }
}

TEST_F(EventManagers, StopOnAThreadOfTheirOwnAndStartAgain) {
    for (const uint32_t queue : {kTimerQueueId, kFirstIoQueueId}) {
        start();
        std::latch stopped{1};
        uint32_t timer = kNoId;
        SocketPair pair;
        const auto stopAndStart = [](uint32_t, pelmoMsg*, void* latch) {
            EventManager_Stop();
            EXPECT_EQ(EventManager_Start(), kStatusSuccess);
            EXPECT_EQ(EventManager_StartIo(1), kStatusSuccess);
            static_cast<std::latch*>(latch)->count_down();
        };
        if (queue == kTimerQueueId) {
            ASSERT_EQ(pelmoEvent_CreateTimer(&timer, queue, stopAndStart, 0.001, &stopped),
                      kStatusSuccess);
        } else {
            ASSERT_EQ(
                pelmoEvent_CreateIO(&timer, queue, stopAndStart, pair.ends[0], kIoRead, &stopped),
                kStatusSuccess);
            pair.ready();
        }
        stopped.wait();
        pelmoEvent_DestroyEx(timer, nullptr);
        fireOnce(kTimerQueueId);
        EventManager_Stop();
    }
}

TEST_F(EventManagers, TakeOneToAHundredAndTwentyEightIoThreads) {
    ASSERT_EQ(EventManager_Start(), kStatusSuccess);
    EXPECT_EQ(EventManager_StartIo(0), kStatusInvalidArgument);
    EXPECT_EQ(EventManager_StartIo(129), kStatusInvalidArgument);
    ASSERT_EQ(EventManager_StartIo(3), kStatusSuccess);
    const char* name = nullptr;
    EXPECT_EQ(pelmoQueue_GetName(7, &name), kStatusSuccess);
    EXPECT_STREQ(name, "PELMO IO Queue 3");
    SocketPair pair;
    std::latch ready{2};
    uint32_t one = kNoId, other = kNoId;
    // Each queue has a set of its own.
    EXPECT_EQ(pelmoEvent_CreateIO(&one, 6, countDownOnce, pair.ends[0], kIoRead, &ready),
              kStatusSuccess);
    EXPECT_EQ(pelmoEvent_CreateIO(&other, 7, countDownOnce, pair.ends[0], kIoRead, &ready),
              kStatusSuccess);
    pair.ready();
    ready.wait();
}

TEST_F(EventManagers, LeaveNothingBehindWhereTheyCantStart) {
    testing::internal::CaptureStderr();
    const size_t failures = eachAllocationFails([] {
        pelmoStatus status = EventManager_Start();
        if (status == kStatusSuccess) status = EventManager_StartIo(2);
        EXPECT_EQ(status, allocationsFailed() == 0 ? kStatusSuccess : kStatusNoMemory);
        allocationsHeal();
        EventManager_Stop();
        EXPECT_EQ(Id_Check(kTimerQueueId, IdType::kQueue), kStatusNotFound);
        EXPECT_EQ(Id_Check(kFirstIoQueueId + 1, IdType::kQueue), kStatusNotFound);
    });
    (void)testing::internal::GetCapturedStderr();
    EXPECT_GT(failures, 30u);
}

// Sockets come and go on two threads, and are closed as soon as their event is gone, while the IO
// thread waits for them and others dispatch.
TEST_F(EventManagers, WatchSocketsThatComeAndGo) {
    start();
    uint32_t queue = kNoId;
    ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    std::atomic<bool> done{false};
    std::atomic<uint32_t> callbacks{0};
    std::thread dispatcher([&] {
        while (!done)
            (void)pelmoQueue_TimedDispatch(queue, 0.001);
    });
    testing::internal::CaptureStderr();
    const auto churn = [&](uint32_t target) {
        for (int i = 0; i < 400; ++i) {
            SocketPair pair;
            uint32_t event = kNoId;
            ASSERT_EQ(pelmoEvent_CreateIO(
                          &event, target,
                          [](uint32_t, pelmoMsg*, void* count) {
                              ++*static_cast<std::atomic<uint32_t>*>(count);
                          },
                          pair.ends[0], kIoRead, &callbacks),
                      kStatusSuccess);
            if (i % 2 != 0) pair.ready();
            if (i % 3 != 0) std::this_thread::yield();
            EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
            EXPECT_FALSE(isPolled(pair.ends[0]));
        }
    };
    std::thread one(churn, queue), two(churn, kFirstIoQueueId);
    one.join();
    two.join();
    done = true;
    dispatcher.join();
    // No wait met a descriptor that was closed.
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EventManager_Stop();
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

// A destroy that meets the stop neither hangs nor finds what is gone.
TEST_F(EventManagers, StopWhileEventsEnd) {
    for (int i = 0; i < 30; ++i) {
        start();
        std::vector<std::unique_ptr<SocketPair>> pairs;
        std::vector<uint32_t> events;
        for (int j = 0; j < 10; ++j) {
            pairs.push_back(std::make_unique<SocketPair>());
            uint32_t event = kNoId;
            ASSERT_EQ(pelmoEvent_CreateIO(&event, kFirstIoQueueId, ignoreEvent,
                                          pairs.back()->ends[0], kIoRead, nullptr),
                      kStatusSuccess);
            events.push_back(event);
            ASSERT_EQ(pelmoEvent_CreateTimer(&event, kTimerQueueId, ignoreEvent, 0, nullptr),
                      kStatusSuccess);
            events.push_back(event);
        }
        std::thread destroyer([&] {
            for (const uint32_t event : events)
                EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);
        });
        EventManager_Stop();
        destroyer.join();
    }
}

}  // namespace
