#include <cmath>

#include "lib/runtime/event_internal.h"
#include "tests/runtime/event_stand.h"

namespace {

struct Events : testing::Test {
    EventStand stand;
    SocketPair pair;
    uint32_t event = kNoId;
};

TEST_F(Events, CheckTheirArgumentsInOrder) {
    const auto timer = [&](pelmoEventCallback callback, double interval) {
        return pelmoEvent_CreateTimer(&event, 4'711, callback, interval, nullptr);
    };
    EXPECT_EQ(timer(nullptr, -1), kStatusInvalidCallback);
    for (const double interval : {-0.001, -HUGE_VAL, std::nan("")}) {
        EXPECT_EQ(timer(ignoreEvent, interval), kStatusInvalidInterval);
        EXPECT_EQ(pelmoEvent_ResetTimerInterval(1, interval), kStatusInvalidInterval);
    }
    EXPECT_EQ(pelmoEvent_CreateIO(nullptr, 4'711, nullptr, -1, kIoRead, nullptr),
              kStatusInvalidCallback);
    EXPECT_EQ(pelmoEvent_CreateListener(&event, 4'711, nullptr, 10, "A", nullptr),
              kStatusInvalidCallback);
    EXPECT_EQ(event, kNoId);
}

// A timer runs on through a long callback, while a socket that stays ready can't fire into it.
TEST_F(Events, RearmTimersBeforeTheirCallbackAndSocketsAfterIt) {
    static const auto isArmed = [](uint32_t id) {
        const Event* const record = recordOf<Event>(id);
        return record->kind == kEventTimer ? record->timer.place != 0
                                           : Event_UnregisterIO(recordOf<Event>(id)) == 0;
    };
    const auto noteArmed = [](uint32_t id, pelmoMsg*, void* armed) {
        static_cast<std::vector<bool>*>(armed)->push_back(isArmed(id));
    };
    std::vector<bool> armed;
    stand.timer(1, noteArmed, &armed);
    EXPECT_EQ(stand.fire(1), 1u);
    ASSERT_EQ(pelmoEvent_CreateIO(&event, stand.queue, noteArmed, pair.ends[0], kIoWrite, &armed),
              kStatusSuccess);
    stand.ioPass();
    EXPECT_EQ(dispatchAll(stand.queue), 2u);
    EXPECT_EQ(armed, (std::vector<bool>{true, false}));
    EXPECT_TRUE(isArmed(event));
}

// With no callback running the completion runs at once, also without a queue; what was posted is
// dropped.
TEST_F(Events, EndAtOnceWhileTheyOnlyWait) {
    for (const bool withQueue : {true, false}) {
        bool isDone = false;
        const auto done = [](uint32_t, void* flag) { *static_cast<bool*>(flag) = true; };
        const auto run = [](uint32_t, pelmoMsg*, void*) { ADD_FAILURE() << "after its end"; };
        event = stand.timer(1, run, &isDone);
        if (!withQueue) pelmoQueue_DestroyEx(stand.queue, nullptr, nullptr);
        EXPECT_EQ(stand.fire(1), 1u);
        EXPECT_EQ(pelmoEvent_DestroyEx(event, done), kStatusSuccess);
        EXPECT_EQ(pelmoEvent_DestroyEx(event, done), kStatusInvalidEvent);
        EXPECT_TRUE(isDone);
        dispatchAll(stand.queue);
    }
}

}  // namespace
