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
    const auto timer = [&](uint32_t* out, pelmoEventCallback callback, double interval) {
        return pelmoEvent_CreateTimer(out, 4'711, callback, interval, nullptr);
    };
    EXPECT_EQ(timer(nullptr, nullptr, -1), kStatusInvalidCallback);
    EXPECT_EQ(timer(nullptr, ignoreEvent, -1), kStatusInvalidEvent);
    EXPECT_EQ(timer(&event, ignoreEvent, 1), kStatusInvalidQueue);
    for (const double interval : {-0.001, -HUGE_VAL, std::nan("")}) {
        EXPECT_EQ(timer(&event, ignoreEvent, interval), kStatusInvalidInterval);
        EXPECT_EQ(pelmoEvent_ResetTimerInterval(1, interval), kStatusInvalidInterval);
    }
    const auto io = [&](uint32_t* out, pelmoEventCallback callback) {
        return pelmoEvent_CreateIO(out, 4'711, callback, pair.ends[0], kIoRead, nullptr);
    };
    EXPECT_EQ(io(nullptr, nullptr), kStatusInvalidCallback);
    EXPECT_EQ(io(nullptr, ignoreEvent), kStatusInvalidEvent);
    EXPECT_EQ(io(&event, ignoreEvent), kStatusInvalidQueue);

    const auto listener = [&](uint32_t* out, pelmoEventCallback callback) {
        return pelmoEvent_CreateListener(out, stand.queue, callback, 10, "A", nullptr);
    };
    EXPECT_EQ(listener(nullptr, nullptr), kStatusInvalidEvent);
    EXPECT_EQ(listener(&event, nullptr), kStatusInvalidCallback);
    EXPECT_EQ(listener(&event, ignoreEvent), kStatusInvalidTransport);  // none are there

    libraryOpen = false;
    EXPECT_EQ(timer(nullptr, nullptr, -1), kStatusNotInitialized);
    EXPECT_EQ(io(nullptr, nullptr), kStatusNotInitialized);
    EXPECT_EQ(listener(nullptr, nullptr), kStatusNotInitialized);
    EXPECT_EQ(event, kNoId);
}

TEST_F(Events, OfListenersKeepWhatTheyWereGiven) {
    char subject[] = "A.B";
    Event* made = nullptr;
    const auto make = [&](uint32_t queue) {
        return Event_NewListener(&made,
                                 {.queueId = queue,
                                  .transportId = kIntraProcessTransportId,
                                  .subject = subject,
                                  .kind = ListenerKind::kPlain,
                                  .callback = ignoreEvent},
                                 true, 4);
    };
    EXPECT_EQ(make(4'711), kStatusInvalidQueue);
    ASSERT_EQ(make(stand.queue), kStatusSuccess);
    ASSERT_EQ(Id_SetGlobal(&made->header, &event), kStatusSuccess);
    EXPECT_EQ(made->listener.vectorGroup, reinterpret_cast<void*>(ignoreEvent));
    subject[0] = 'X';
    const char* text = nullptr;
    EXPECT_EQ(pelmoEvent_GetListenerSubject(event, &text), kStatusSuccess);
    EXPECT_STREQ(text, "A.B");
    ASSERT_TRUE(EntryRing_PushBack(made->listener.inbox, messageFor(event)));  // goes with it

    // The transport is gone.
    uint32_t transport = 7;
    EXPECT_EQ(pelmoEvent_GetListenerTransport(event, &transport), kStatusInvalidTransport);
    EXPECT_EQ(transport, 7u);
    EXPECT_EQ(made->listener.transportId, kNoId);
}

// A timer runs on through a long callback, while a socket that stays ready can't fire into it.
TEST_F(Events, OfTimersAreBackAheadOfTheirCallbackThoseOfSocketsBehindIt) {
    static int calls;
    calls = 0;
    const auto onTimer = [](uint32_t id, pelmoMsg*, void*) {
        EXPECT_NE(recordOf<Event>(id)->timer.place, 0u);
        ++calls;
    };
    const auto onSocket = [](uint32_t id, pelmoMsg*, void*) {
        EXPECT_EQ(Event_UnregisterIO(recordOf<Event>(id)), kStatusInvalidEvent);
        ++calls;
    };
    stand.timer(1, onTimer);
    EXPECT_EQ(stand.fire(1), 1u);
    ASSERT_EQ(pelmoEvent_CreateIO(&event, stand.queue, onSocket, pair.ends[0], kIoWrite, nullptr),
              kStatusSuccess);
    stand.ioPass();
    EXPECT_EQ(dispatchAll(stand.queue), 2u);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(Event_UnregisterIO(recordOf<Event>(event)), kStatusSuccess);
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
