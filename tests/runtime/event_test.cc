#include "lib/runtime/event.h"

#include <cstdarg>
#include <thread>
#include <utility>

#include "lib/msg/trace_ops.h"
#include "lib/runtime/post.h"
#include "lib/runtime/transport_ops.h"
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
    EXPECT_EQ(timer(&event, ignoreEvent, -1), kStatusInvalidInterval);
    EXPECT_EQ(timer(&event, ignoreEvent, 1), kStatusInvalidQueue);

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
    EXPECT_EQ(pelmoEvent_GetType(1, &event), kStatusNotInitialized);
    EXPECT_EQ(pelmoEvent_DestroyEx(1, nullptr), kStatusInvalidEvent);
    libraryOpen = true;
    EXPECT_EQ(event, kNoId);
}

TEST_F(Events, AnswerByTheirKind) {
    const uint32_t timer = stand.timer(1.5, ignoreEvent);
    uint32_t io = kNoId;
    ASSERT_EQ(pelmoEvent_CreateIO(&io, stand.queue, ignoreEvent, pair.ends[0], kIoWrite, nullptr),
              kStatusSuccess);
    uint32_t number = 0;
    int32_t source = 0;
    double interval = 0;
    const char* text = nullptr;
    for (const uint32_t wrong : {timer, uint32_t{999'999}, stand.queue}) {
        EXPECT_EQ(pelmoEvent_GetIOType(wrong, &number), kStatusInvalidEvent);
        EXPECT_EQ(pelmoEvent_GetIOSource(wrong, &source), kStatusInvalidEvent);
        EXPECT_EQ(pelmoEvent_GetListenerSubject(wrong, &text), kStatusInvalidEvent);
        EXPECT_EQ(pelmoEvent_GetListenerTransport(wrong, nullptr), kStatusInvalidEvent);
    }
    EXPECT_EQ(pelmoEvent_GetTimerInterval(io, &interval), kStatusInvalidEvent);
    EXPECT_EQ(pelmoEvent_ResetTimerInterval(io, 1), kStatusInvalidEvent);
    EXPECT_EQ(pelmoEvent_GetType(timer, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(pelmoEvent_GetIOSource(io, nullptr), kStatusInvalidArgument);
}

TEST_F(Events, OfListenersKeepWhatTheyWereGiven) {
    char subject[] = "A.B";
    Event* const made = Event_NewListener({.queueId = stand.queue,
                                           .transportId = kIntraProcessTransportId,
                                           .subject = subject,
                                           .kind = ListenerKind::kPlain,
                                           .callback = ignoreEvent},
                                          true, 4);
    ASSERT_NE(made, nullptr);
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
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusSuccess);

    EXPECT_EQ(Event_NewListener({.queueId = 4'711,
                                 .transportId = kIntraProcessTransportId,
                                 .subject = subject,
                                 .kind = ListenerKind::kPlain},
                                false, 4),
              nullptr);
}

// From its own callback: the completion runs on the same thread, behind the callback.
TEST_F(Events, EndOnceAndBehindTheirCallback) {
    struct Order {
        std::string text;
    } order;
    const auto callback = [](uint32_t timer, pelmoMsg*, void* closure) {
        auto* const at = static_cast<Order*>(closure);
        at->text += "(";
        EXPECT_EQ(pelmoEvent_DestroyEx(
                      timer, [](uint32_t, void* same) { static_cast<Order*>(same)->text += "!"; }),
                  kStatusSuccess);
        at->text += ")";
    };
    event = stand.timer(1, callback, &order);
    (void)timersFire(stand.epoch, clockSteadySeconds() + 1);
    EXPECT_EQ(stand.dispatchAll(stand.queue), 1u);
    EXPECT_EQ(order.text, "()!");
    EXPECT_EQ(pelmoEvent_DestroyEx(event, nullptr), kStatusInvalidEvent);

    // With no callback under way it runs at once; what was posted is dropped.
    event = stand.timer(1, callback, &order);
    (void)timersFire(stand.epoch, clockSteadySeconds() + 1);
    EXPECT_EQ(pelmoEvent_DestroyEx(
                  event, [](uint32_t, void* same) { static_cast<Order*>(same)->text += "?"; }),
              kStatusSuccess);
    stand.dispatchAll(stand.queue);
    EXPECT_EQ(order.text, "()!?");
}

TEST_F(Events, CanBeDestroyedWhenTheirQueueIsGone) {
    uint32_t queue = kNoId;
    ASSERT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    int completions = 0;
    ASSERT_EQ(pelmoEvent_CreateTimer(&event, queue, ignoreEvent, 1, &completions), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_DestroyEx(queue, nullptr, nullptr), kStatusSuccess);
    (void)timersFire(stand.epoch, clockSteadySeconds() + 1);
    EXPECT_EQ(
        pelmoEvent_DestroyEx(event, [](uint32_t, void* count) { ++*static_cast<int*>(count); }),
        kStatusSuccess);
    EXPECT_EQ(completions, 1);
}

// Two threads dispatch while a third makes, fires and ends timers: each completion comes once, and
// behind the last callback.
TEST_F(Events, MeetTheirDispatchesWhenTheyEnd) {
    struct Life {
        std::atomic<int> completions{0};
        std::atomic<bool> late{false};
    };
    constexpr int kLives = 2'000;
    std::vector<Life> lives(kLives);
    std::atomic<bool> done{false};
    const auto dispatch = [&] {
        while (!done)
            (void)pelmoQueue_TimedDispatch(stand.queue, 0);
    };
    std::thread one(dispatch), two(dispatch);
    for (Life& life : lives) {
        const uint32_t timer = stand.timer(
            0,
            [](uint32_t, pelmoMsg*, void* closure) {
                auto* const own = static_cast<Life*>(closure);
                std::this_thread::yield();
                if (own->completions != 0) own->late = true;
            },
            &life);
        (void)timersFire(stand.epoch, clockSteadySeconds());
        (void)timersFire(stand.epoch, clockSteadySeconds());
        EXPECT_EQ(pelmoEvent_DestroyEx(
                      timer, [](uint32_t, void* own) { ++static_cast<Life*>(own)->completions; }),
                  kStatusSuccess);
    }
    for (const Life& life : lives) {
        while (life.completions == 0)
            std::this_thread::yield();
    }
    done = true;
    one.join();
    two.join();
    for (const Life& life : lives) {
        EXPECT_EQ(life.completions, 1);
        EXPECT_FALSE(life.late);
    }
}

std::string traced;

[[gnu::format(printf, 2, 3)]] void trace(uint32_t module, const char* format, ...) {
    if (module != kTraceEvents) return;
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    traced += line + std::string("\n");
}

TEST_F(Events, TraceCreationsBehindAndOtherCallsAhead) {
    const auto former = std::exchange(traceOps.write, trace);
    traceOps.enabled[kTraceEvents] = 1;
    traceOps.on = 1;
    traced.clear();
    void* const closure = reinterpret_cast<void*>(0x77);
    EXPECT_EQ(pelmoEvent_CreateTimer(&event, stand.queue, nullptr, 1, closure),
              kStatusInvalidCallback);
    const uint32_t timer = stand.timer(2.0, ignoreEvent, closure);
    EXPECT_EQ(pelmoEvent_GetType(4'711, nullptr), kStatusInvalidEvent);
    EXPECT_EQ(pelmoEvent_DestroyEx(timer, nullptr), kStatusSuccess);
    traceOps.on = 0;
    traceOps.enabled[kTraceEvents] = 0;
    traceOps.write = former;

    char expected[256];
    std::snprintf(expected, sizeof(expected),
                  "pelmoEvent_CreateTimer(%u, %u, %p, 0x4000000000000000, 0x77)\n"
                  "pelmoEvent_GetType(4711, (nil))\n"
                  "pelmoEvent_DestroyEx(%u, (nil))\n",
                  timer, stand.queue, reinterpret_cast<void*>(ignoreEvent), timer);
    EXPECT_EQ(traced, expected);
}

}  // namespace
