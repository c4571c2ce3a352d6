#include "lib/runtime/event_manager.h"

#include <latch>

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

}  // namespace
