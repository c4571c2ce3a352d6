#include <cmath>

#include "lib/runtime/event_internal.h"
#include "lib/runtime/post.h"
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

TEST_F(Events, OfListenersKeepWhatTheyWereGiven) {
    char subject[] = "A.B";
    Event* made = nullptr;
    ASSERT_EQ(Event_NewListener(&made,
                                {.queueId = stand.queue,
                                 .transportId = kIntraProcessTransportId,
                                 .subject = subject,
                                 .kind = ListenerKind::kPlain,
                                 .callback = ignoreEvent},
                                true, 4),
              kStatusSuccess);
    ASSERT_EQ(Id_SetGlobal(&made->header, &event), kStatusSuccess);
    EXPECT_EQ(made->listener.vectorGroup, reinterpret_cast<void*>(ignoreEvent));
    subject[0] = 'X';
    const char* text = nullptr;
    EXPECT_EQ(pelmoEvent_GetListenerSubject(event, &text), kStatusSuccess);
    EXPECT_STREQ(text, "A.B");
    ASSERT_TRUE(EntryRing_PushBack(made->listener.inbox, messageFor(event)));  // goes with it
}

// A timer runs on through a long callback, while a socket that stays ready can't fire into it.
TEST_F(Events, OfTimersAreBackAheadOfTheirCallbackThoseOfSocketsBehindIt) {
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

// Ended by its callback: the completion runs behind that, on the same thread. Ended with none under
// way it runs at once, also without a queue; what was posted is dropped.
TEST_F(Events, EndOnceAndBehindTheirCallback) {
    std::string order;
    static constexpr auto note = [](uint32_t, void* text) {
        *static_cast<std::string*>(text) += "!";
    };
    const auto endItself = [](uint32_t timer, pelmoMsg*, void* text) {
        *static_cast<std::string*>(text) += "(";
        EXPECT_EQ(pelmoEvent_DestroyEx(timer, note), kStatusSuccess);
        *static_cast<std::string*>(text) += ")";
    };
    event = stand.timer(1, endItself, &order);
    EXPECT_EQ(stand.fire(1), 1u);
    EXPECT_EQ(dispatchAll(stand.queue), 1u);
    EXPECT_EQ(order, "()!");
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusInvalidEvent);

    for (const bool withQueue : {true, false}) {
        order.clear();
        event = stand.timer(1, endItself, &order);
        if (!withQueue) pelmoQueue_DestroyEx(stand.queue, nullptr, nullptr);
        EXPECT_EQ(stand.fire(1), 1u);
        EXPECT_EQ(pelmoEvent_DestroyEx(event, note), kStatusSuccess);
        dispatchAll(stand.queue);
        EXPECT_EQ(order, "!");
    }
}

}  // namespace
