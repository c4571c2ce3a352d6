#include "lib/runtime/event_manager.h"

#include <algorithm>
#include <latch>
#include <span>

#include "tests/runtime/event_stand.h"

namespace {

// On real clocks, with the event manager's own threads.
struct EventManagers : testing::Test {
    void start() {
        ASSERT_EQ(EventManager_Start(), kStatusSuccess);
        ASSERT_EQ(EventManager_StartIo(1), kStatusSuccess);
    }
    ~EventManagers() override { EventManager_Stop(); }

    static uint32_t watch(uint32_t queue,
                          const SocketPair& pair,
                          pelmoEventCallback callback,
                          void* closure = nullptr) {
        uint32_t event = kNoId;
        EXPECT_EQ(pelmoEvent_CreateIO(&event, queue, callback, pair.ends[0], kIoRead, closure),
                  kStatusSuccess);
        return event;
    }
    // Ends the event, and then counts the closure, a latch, down.
    static void fireOnce(uint32_t event, pelmoMsg*, void*) {
        pelmoEvent_DestroyEx(
            event, [](uint32_t, void* latch) { static_cast<std::latch*>(latch)->count_down(); });
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

TEST_F(EventManagers, StopOnAThreadOfTheirOwnAndStartAgain) {
    const auto stopAndStart = [](uint32_t, pelmoMsg*, void* stopped) {
        EventManager_Stop();
        EXPECT_EQ(EventManager_Start(), kStatusSuccess);
        EXPECT_EQ(EventManager_StartIo(1), kStatusSuccess);
        static_cast<std::latch*>(stopped)->count_down();
    };
    start();
    const SocketPair pair;
    pair.ready();
    std::latch stopped{1}, fired{1};
    const uint32_t event = watch(kFirstIoQueueId, pair, stopAndStart, &stopped);
    stopped.wait();
    pelmoEvent_DestroyEx(event, nullptr);
    watch(kFirstIoQueueId, pair, fireOnce, &fired);
    fired.wait();
}

TEST_F(EventManagers, TakeOneToAHundredAndTwentyEightIoThreads) {
    ASSERT_EQ(EventManager_Start(), kStatusSuccess);
    EXPECT_EQ(EventManager_StartIo(0), kStatusInvalidArgument);
    EXPECT_EQ(EventManager_StartIo(129), kStatusInvalidArgument);
    ASSERT_EQ(EventManager_StartIo(3), kStatusSuccess);
    const SocketPair pair;
    std::latch ready{2};
    for (const uint32_t queue : {6u, 7u})  // each queue has a set of its own
        watch(queue, pair, fireOnce, &ready);
    pair.ready();
    ready.wait();
}

// Sockets come and go on two threads, and are closed as soon as their event is gone, while the IO
// thread waits for them and others dispatch.
TEST_F(EventManagers, WatchSocketsThatComeAndGo) {
    start();
    const uint32_t queue = makeQueue();
    std::atomic<bool> done{false};
    std::atomic<uint32_t> callbacks{0};
    std::thread dispatcher([&] {
        while (!done)
            (void)pelmoQueue_TimedDispatch(queue, 0.001);
    });
    testing::internal::CaptureStderr();
    const auto countUp = [](uint32_t, pelmoMsg*, void* count) {
        ++*static_cast<std::atomic<uint32_t>*>(count);
    };
    const auto churn = [&](uint32_t target) {
        for (int i = 0; i < 400; ++i) {
            const SocketPair pair;
            const uint32_t event = watch(target, pair, countUp, &callbacks);
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
}

}  // namespace
