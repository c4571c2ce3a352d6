// Dispatch of queues and groups: what one step takes, who is called, how waits end, and what
// becomes of events, queues and a library that end meanwhile.

#include "lib/runtime/dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <latch>

#include "lib/base/clock.h"
#include "tests/runtime/dispatch_stand.h"

namespace {

using Calls = std::vector<std::string>;

Calls calls;                                 // of tests on one thread
std::function<void(uint32_t event)> action;  // what onEvent does

void onEvent(uint32_t event, pelmoMsg*, void*) {
    action(event);
}

// A listener's closure is its letter.
char letters[] = "abcdefghijklmnopqrstuvwxyz";

char letterOf(const pelmoMsg* message) {
    return *static_cast<const char*>(message->deliveryClosure);
}

void onPlain(uint32_t, pelmoMsg* message, void* closure) {
    EXPECT_EQ(message->deliveryClosure, closure);
    calls.push_back({letterOf(message)});
}

// Scribbles over the array behind it, which is its own.
void onVector(pelmoMsg** messages, uint32_t count) {
    calls.emplace_back();
    for (uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(messages[i]->userOwned, 0U);
        calls.back() += letterOf(std::exchange(messages[i], nullptr));
    }
}

void onOther(pelmoMsg** messages, uint32_t count) {
    onVector(messages, count);
}

void drain(uint32_t queue, bool single = false) {
    while ((single ? pelmoQueue_TimedDispatchSingle : pelmoQueue_TimedDispatch)(queue, 0) ==
           kStatusSuccess) {
    }
}

void destroyWhenDrained(uint32_t queue) {
    drain(queue);
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

struct ListenerRow {
    pelmoVectorCallback callback;  // null: a plain one
    uintptr_t group;
    uint32_t transport;
};

const std::pair<char, ListenerRow> kListeners[] = {
    {'a', {onVector, 1, 10}}, {'b', {onVector, 1, 10}}, {'c', {onVector, 2, 10}},  // another group
    {'d', {onVector, 1, 11}},                            // another transport
    {'e', {onOther, 1, 10}},                             // another callback
    {'p', {nullptr, 0, 10}},  {'x', {onVector, 1, 10}},  // destroyed with its entries on the queue
};

uint32_t listenAs(char letter, const ListenerRow& row, uint32_t queue) {
    uint32_t event = kNoId;
    char* const closure = &letters[letter - 'a'];
    const pelmoStatus status =
        row.callback == nullptr
            ? pelmoEvent_CreateListener(&event, queue, onPlain, row.transport, "A", closure)
            : pelmoEvent_CreateVectorListenerEx(&event, queue, row.callback, row.transport, "A",
                                                closure, reinterpret_cast<void*>(row.group));
    EXPECT_EQ(status, kStatusSuccess);
    return event;
}

TEST(Dispatch, BatchesWhatMayComeTogether) {
    const struct {
        std::string posted;
        Calls mixed, single;
    } cases[] = {
        {"p", {"p"}, {"p"}},
        {"pp", {"p", "p"}, {"p", "p"}},
        {"aaa", {"aaa"}, {"aaa"}},
        {"abba", {"abba"}, {"a", "bb", "a"}},
        {"aac", {"aa", "c"}, {"aa", "c"}},
        {"aadd", {"aa", "dd"}, {"aa", "dd"}},
        {"aea", {"a", "e", "a"}, {"a", "e", "a"}},
        {"apa", {"a", "p", "a"}, {"a", "p", "a"}},
        {"xaxxbx", {"ab"}, {"a", "b"}},
        {"xp", {"p"}, {"p"}},
        {"xxx", {}, {}},
        {std::string(128, 'a') + "b", {std::string(128, 'a'), "b"}, {std::string(128, 'a'), "b"}},
        {std::string(300, 'a'),
         {std::string(128, 'a'), std::string(128, 'a'), std::string(44, 'a')},
         {std::string(128, 'a'), std::string(128, 'a'), std::string(44, 'a')}},
    };
    const DispatchStand stand;
    for (const auto& [posted, mixed, single] : cases) {
        for (const bool isSingle : {false, true}) {
            SCOPED_TRACE(posted + (isSingle ? " single" : ""));
            const uint32_t queue = newQueue();
            uint32_t events[128] = {};
            for (const auto& [letter, row] : kListeners)
                events[size_t(letter)] = listenAs(letter, row, queue);
            std::vector<uint32_t> order;
            for (const char letter : posted)
                order.push_back(events[size_t(letter)]);
            post(queue, order);
            pelmoEvent_DestroyEx(events['x'], nullptr);

            calls.clear();
            drain(queue, isSingle);
            EXPECT_EQ(calls, isSingle ? single : mixed);
            for (const auto& [letter, row] : kListeners)
                pelmoEvent_DestroyEx(events[size_t(letter)], nullptr);
            destroyWhenDrained(queue);
        }
    }
}

TEST(Dispatch, PassesHooksAndCutOffs) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    const uint32_t vector = listenAs('a', {onVector, 1, 10}, queue);
    const uint32_t plain = listenAs('p', {nullptr, 0, 10}, queue);
    uint32_t asked = 0;
    DispatchStand::hook = [&asked](pelmoMsg*) { return ++asked % 2 == 0; };
    for (const uint32_t id : {vector, plain}) {
        Held<Event> event;
        ASSERT_EQ(event.get(id, IdAccess::kUnlocked), kStatusSuccess);
        event->listener.inboundHooks = true;
    }
    calls.clear();
    post(queue, {vector, vector, vector, vector, vector, plain, plain});
    drain(queue);
    EXPECT_EQ(calls, (Calls{"aa", "p"}));  // hooks 2 and 4 let pass, then 6
    EXPECT_EQ(asked, 7U);

    DispatchStand::hook = [](pelmoMsg*) { return false; };
    post(queue, {vector, vector});
    drain(queue);
    transportOps.runInboundHooks = nullptr;
    post(queue, {plain});
    drain(queue);
    post(queue, {plain});
    Held<Event> cut;
    ASSERT_EQ(cut.get(plain, IdAccess::kUnlocked), kStatusSuccess);
    transportOps.removeListener(10, cut.pointer());
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
    EXPECT_EQ(calls.size(), 2U);
    pelmoEvent_DestroyEx(vector, nullptr);
    pelmoEvent_DestroyEx(plain, nullptr);
    destroyWhenDrained(queue);
}

TEST(Dispatch, LeavesDetachedMessagesToTheCallback) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    static pelmoMsg* kept;
    const uint32_t event = listen(queue, [](uint32_t, pelmoMsg* message, void*) {
        EXPECT_EQ(pelmoMsg_Destroy(message), kStatusNotPermitted);
        if (kept == nullptr) {
            EXPECT_EQ(pelmoMsg_Detach(message), kStatusSuccess);
            kept = message;
        } else {
            EXPECT_EQ(pelmoMsg_Detach(message), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_Destroy(message), kStatusSuccess);
        }
    });
    post(queue, {event, event});
    drain(queue);
    EXPECT_EQ(pelmoMsg_AddI32(kept, "a", 1, 0), kStatusSuccess);
    EXPECT_EQ(pelmoMsg_Destroy(kept), kStatusSuccess);
    pelmoEvent_DestroyEx(event, nullptr);
    destroyWhenDrained(queue);
}

TEST(Dispatch, AnswersAtOnceWhereThereIsNothing) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    uint32_t synchronous = 0, group = 0;
    ASSERT_EQ(pelmoQueue_CreateSynchronous(&synchronous), kStatusSuccess);
    ASSERT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
    ASSERT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusTimeout);
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0.001), kStatusTimeout);
    EXPECT_EQ(pelmoQueue_TimedDispatch(group, 0), kStatusInvalidQueue);
    EXPECT_EQ(pelmoQueue_TimedDispatch(synchronous, 0), kStatusNotPermitted);
    EXPECT_EQ(pelmoQueueGroup_TimedDispatch(group, 0), kStatusTimeout);
    EXPECT_EQ(pelmoQueueGroup_TimedDispatch(group, 0.001), kStatusTimeout);
    EXPECT_EQ(pelmoQueueGroup_TimedDispatch(queue, 0), kStatusInvalidQueueGroup);

    const uint32_t event = listen(queue, onPlain);
    post(queue, {event, event});
    pelmoEvent_DestroyEx(event, nullptr);
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);  // entries of the dead alone
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusTimeout);

    libraryOpen = false;
    EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueue_TimedDispatchSingle(queue, 0), kStatusNotInitialized);
    EXPECT_EQ(pelmoQueueGroup_TimedDispatch(group, 0), kStatusNotInitialized);
    EXPECT_EQ(Queue_DispatchId(queue, 0), kStatusTimeout);  // as while the library opens
    pelmoQueueGroup_Destroy(group);
    pelmoQueue_DestroyEx(synchronous, nullptr, nullptr);
    destroyWhenDrained(queue);
}

void noteEventDone(uint32_t, void*) {
    calls.push_back("event done");
}

void noteQueueDone(uint32_t, void* closure) {
    calls.push_back(std::string("queue done") + static_cast<const char*>(closure));
}

// A callback ends what it runs on; completions come once, after the last callback under way.
TEST(Dispatch, LivesThroughTheEndOfItsObjects) {
    static uint32_t queue;
    static uint32_t depth;
    static char closure[] = "!";
    const auto endEvent = [](uint32_t event) {
        EXPECT_EQ(pelmoEvent_DestroyEx(event, noteEventDone), kStatusSuccess);
    };
    const auto endQueue = [](uint32_t) {
        uint32_t count;
        EXPECT_EQ(pelmoQueue_DestroyEx(queue, noteQueueDone, closure), kStatusSuccess);
        EXPECT_EQ(pelmoQueue_GetCount(queue, &count), kStatusInvalidQueue);
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusInvalidQueue);
    };
    const auto nest = [](auto innermost) {
        return [innermost](uint32_t event) {
            if (++depth == 2) return innermost(event);
            EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
        };
    };
    const struct {
        const char* name;
        std::function<void(uint32_t)> act;
        Calls expected;
    } cases[] = {
        {"event", endEvent, {"call", "return", "event done"}},
        {"queue", endQueue, {"call", "return", "queue done!"}},
        {"both",
         [=](uint32_t event) {
             endQueue(event);
             endEvent(event);
         },
         {"call", "return", "event done", "queue done!"}},
        {"library",
         [=](uint32_t) {
             libraryOpen = false;
             pelmoQueue_DestroyEx(queue, noteQueueDone, closure);
         },
         {"call", "return", "queue done!"}},
        {"event, nested", nest(endEvent), {"call", "call", "return", "return", "event done"}},
        {"queue, nested", nest(endQueue), {"call", "call", "return", "return", "queue done!"}},
    };
    for (const auto& [name, act, expected] : cases) {
        SCOPED_TRACE(name);
        const DispatchStand stand;
        queue = newQueue();
        depth = 0;
        calls.clear();
        action = [&act](uint32_t event) {
            calls.push_back("call");
            act(event);
            calls.push_back("return");
        };
        const uint32_t event = listen(queue, onEvent);
        post(queue, {event, event, event});
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
        EXPECT_EQ(calls, expected);
        action = [](uint32_t) { ADD_FAILURE() << "called again"; };
        drain(queue);
        pelmoEvent_DestroyEx(event, nullptr);
        pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    }
}

// Two dispatches of one event under way: the completion comes with the second to end.
TEST(Dispatch, CompletesWithTheLastOfTwo) {
    const DispatchStand stand;
    const uint32_t queue = newQueue();
    std::barrier<> both(2);
    std::latch destroyed(1), firstGone(1);
    static std::atomic<int> done;
    done = 0;
    std::atomic<int> order = 0;
    action = [&](uint32_t event) {
        const int mine = order++;
        both.arrive_and_wait();
        if (mine == 0) {
            pelmoEvent_DestroyEx(event, [](uint32_t, void*) { ++done; });
            destroyed.count_down();
            return;
        }
        destroyed.wait();
        firstGone.wait();
        EXPECT_EQ(done, 0);
    };
    const uint32_t event = listen(queue, onEvent);
    post(queue, {event, event});
    std::atomic<int> ended = 0;
    const auto dispatch = [&] {
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
        if (++ended == 1) firstGone.count_down();
    };
    std::thread other(dispatch);
    dispatch();
    other.join();
    EXPECT_EQ(done, 1);
    destroyWhenDrained(queue);
}

struct Waiter {
    const char* name;
    pelmoStatus (*dispatch)(uint32_t id, double seconds);
    void (*awaitWaiting)(uint32_t id, int32_t count);
    bool isGroup;
};

const Waiter kWaiters[] = {
    {"queue", pelmoQueue_TimedDispatch, awaitWaiters<Queue>, false},
    {"group", pelmoQueueGroup_TimedDispatch, awaitWaiters<QueueGroup>, true},
};

// A queue, and a group with that queue in it, for waits on either.
struct WaitedFor {
    explicit WaitedFor(const Waiter& waiter) {
        queue = newQueue();
        EXPECT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
        EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess);
        id = waiter.isGroup ? group : queue;
        drain(queue);
    }
    ~WaitedFor() {
        pelmoQueueGroup_Destroy(group);
        pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    }

    uint32_t queue = kNoId, group = kNoId, id = kNoId;
};

TEST(Dispatch, EndsItsWait) {
    for (const Waiter& waiter : kWaiters) {
        const struct {
            const char* name;
            void (*end)(const WaitedFor&);
            pelmoStatus expected;
        } cases[] = {
            {"destroyed",
             [](const WaitedFor& on) {
                 pelmoQueueGroup_Destroy(on.group);
                 pelmoQueue_DestroyEx(on.queue, nullptr, nullptr);
             },
             waiter.isGroup ? kStatusInvalidQueueGroup : kStatusInvalidQueue},
            {"closed",
             [](const WaitedFor& on) {
                 libraryOpen = false;
                 pelmoQueueGroup_Destroy(on.group);
                 pelmoQueue_DestroyEx(on.queue, nullptr, nullptr);
             },
             kStatusNotInitialized},
        };
        for (const auto& [name, end, expected] : cases) {
            SCOPED_TRACE(std::string(waiter.name) + " " + name);
            const DispatchStand stand;
            const WaitedFor on(waiter);
            std::vector<std::thread> threads;
            for (int i = 0; i < 3; ++i) {
                threads.emplace_back([&waiter, &on, wanted = expected] {
                    EXPECT_EQ(waiter.dispatch(on.id, -1.0), wanted);
                });
            }
            waiter.awaitWaiting(on.id, 3);
            end(on);
            for (std::thread& thread : threads)
                thread.join();
        }
    }
}

// Many posts before a waiter wakes leave it one signal: each wakes the next. Every callback waits
// for all the others, so a thread left asleep would hang the test.
TEST(Dispatch, WakesAsManyThreadsAsThereAreEntries) {
    constexpr int kThreads = 3;
    for (const Waiter& waiter : kWaiters) {
        SCOPED_TRACE(waiter.name);
        const DispatchStand stand;
        const WaitedFor on(waiter);
        std::barrier<> together(kThreads);
        action = [&](uint32_t) { together.arrive_and_wait(); };
        const uint32_t event = listen(on.queue, onEvent);
        for (int round = 0; round < 50; ++round) {
            std::vector<std::thread> threads;
            for (int i = 0; i < kThreads; ++i) {
                threads.emplace_back(
                    [&] { EXPECT_EQ(waiter.dispatch(on.id, -1.0), kStatusSuccess); });
            }
            waiter.awaitWaiting(on.id, kThreads);
            post(on.queue, std::vector<uint32_t>(kThreads, event));
            for (std::thread& thread : threads)
                thread.join();
        }
        pelmoEvent_DestroyEx(event, nullptr);
    }
}

// An hour goes by at each look at the clock, which is taken at stray wake-ups alone: the second one
// uses up the time that the first one left whole.
std::atomic<int> looks;

TEST(Dispatch, CountsTheTimeFromTheFirstStrayWakeUp) {
    for (const Waiter& waiter : kWaiters) {
        SCOPED_TRACE(waiter.name);
        const DispatchStand stand;
        const WaitedFor on(waiter);
        (void)clockSteadySeconds();  // begins
        looks = 0;
        const ClockSource former = clockSetMonotonicSource([] {
            return timespec{++looks * 3600 + 1000000, 0};
        });
        std::atomic<bool> ended = false;
        std::thread thread([&] {
            EXPECT_EQ(waiter.dispatch(on.id, 3000.0), kStatusTimeout);
            ended = true;
        });
        Held<Queue> queue;
        Held<QueueGroup> group;
        ASSERT_EQ(queue.get(on.queue, IdAccess::kUnlocked), kStatusSuccess);
        ASSERT_EQ(group.get(on.group, IdAccess::kUnlocked), kStatusSuccess);
        for (; looks < 2; std::this_thread::yield()) {
            EXPECT_FALSE(ended);
            Cond_Signal(waiter.isGroup ? &group->cond : &queue->cond);
        }
        thread.join();
        clockSetMonotonicSource(former);
    }
}

TEST(QueueGroupDispatch, TakesTurnsByPriority) {
    const DispatchStand stand;
    const struct {
        const char* posted;
        const char* expected;
    } cases[] = {
        {"aaabbbccc", "abcabcabc"}, {"aab", "aba"},         {"bcca", "abcc"},
        {"ccch", "hccc"},           {"aabbhhh", "hhhabab"}, {"aalhb", "habal"},
    };
    for (const auto& [posted, expected] : cases) {
        SCOPED_TRACE(posted);
        uint32_t group = 0, queues[128] = {}, events[128] = {};
        ASSERT_EQ(pelmoQueueGroup_Create(&group), kStatusSuccess);
        for (const char name : {'l', 'a', 'b', 'c', 'h'}) {
            const auto at = size_t(name);
            queues[at] = newQueue();
            events[at] = listen(queues[at], onPlain, &letters[name - 'a']);
            const uint32_t priority = name == 'h' ? 9 : name == 'l' ? 0 : 1;
            EXPECT_EQ(pelmoQueue_SetPriority(queues[at], priority), kStatusSuccess);
            EXPECT_EQ(pelmoQueueGroup_Add(group, queues[at]), kStatusSuccess);
        }
        for (const char* at = posted; *at != '\0'; ++at)
            post(queues[size_t(*at)], {events[size_t(*at)]});
        calls.clear();
        while (pelmoQueueGroup_TimedDispatch(group, 0) == kStatusSuccess) {
        }
        std::string order;
        for (const std::string& call : calls)
            order += call;
        EXPECT_EQ(order, expected);
        pelmoQueueGroup_Destroy(group);
        for (const char name : {'l', 'a', 'b', 'c', 'h'}) {
            pelmoEvent_DestroyEx(events[size_t(name)], nullptr);
            destroyWhenDrained(queues[size_t(name)]);
        }
    }
}

// Two threads dispatch, one posts, one makes and ends the events, at last the queue. Completions
// come once for each, and no callback after its event's.
TEST(DispatchStress, MeetsTheEndOfEventsAndQueues) {
    constexpr int kEvents = 4, kRounds = 300;
    static std::atomic<int> eventsDone, queuesDone;
    eventsDone = queuesDone = 0;
    struct Life {
        std::atomic<bool> ended = false;
    };
    static std::vector<Life> lives;
    lives = std::vector<Life>(kRounds * kEvents);
    const DispatchStand stand;
    for (int round = 0; round < kRounds; ++round) {
        const uint32_t queue = newQueue();
        std::array<std::atomic<uint32_t>, kEvents> events;
        for (int i = 0; i < kEvents; ++i) {
            events[size_t(i)] = listen(
                queue,
                [](uint32_t, pelmoMsg*, void* life) {
                    EXPECT_FALSE(static_cast<Life*>(life)->ended);
                },
                &lives[size_t(round * kEvents + i)]);
        }
        const auto dispatch = [queue] {
            while (pelmoQueue_TimedDispatch(queue, -1.0) == kStatusSuccess) {
            }
        };
        std::thread first(dispatch), second(dispatch);
        std::thread poster([&] {
            for (int i = 0; i < 40; ++i)
                post(queue, {events[size_t(i % kEvents)], events[0]});
        });
        for (const auto& event : events) {
            pelmoEvent_DestroyEx(event, [](uint32_t, void* life) {
                EXPECT_FALSE(static_cast<Life*>(life)->ended.exchange(true));
                ++eventsDone;
            });
        }
        pelmoQueue_DestroyEx(
            queue, [](uint32_t, void*) { ++queuesDone; }, nullptr);
        poster.join();
        first.join();
        second.join();
    }
    EXPECT_EQ(eventsDone, kEvents * kRounds);
    EXPECT_EQ(queuesDone, kRounds);
}

}  // namespace
