// Dispatch of queues and groups: what one step takes, what is called, how waits end, what becomes
// of events, queues and a library that end meanwhile; and dispatchers, whose threads end and report
// it.

#include <barrier>
#include <cstring>

#include "lib/base/clock.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/dispatcher.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/local_bus.h"

namespace {

// The intra-process transport, a queue, and a group of that queue.
struct DispatchFixture : LocalBus {
    uint32_t queue = makeQueue();
    uint32_t group = makeGroup();

    DispatchFixture() { EXPECT_EQ(pelmoQueueGroup_Add(group, queue), kStatusSuccess); }
};

uint32_t listen(uint32_t queue, pelmoEventCallback callback, void* closure = nullptr) {
    uint32_t event = kNoId;
    EXPECT_EQ(pelmoEvent_CreateListener(&event, queue, callback, kLocal, "A", closure),
              kStatusSuccess);
    return event;
}

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

// Overwrites the array, which is its own.
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

// Of vectors, but for p, q and r, and of one group, callback and transport but for c, d and e.
// Hooks are asked for h and q.
uint32_t listenAs(char letter, uint32_t queue) {
    char* const closure = &letters[letter - 'a'];
    uint32_t event = kNoId;
    if (letter >= 'p' && letter <= 'r') {
        event = listen(queue, onPlain, closure);
    } else {
        EXPECT_EQ(pelmoEvent_CreateVectorListenerEx(
                      &event, queue, letter == 'e' ? onOther : onVector, kLocal, "A", closure,
                      reinterpret_cast<void*>(uintptr_t{letter == 'c' ? 2u : 1u})),
                  kStatusSuccess);
    }
    Event* const record = recordOf<Event>(event);
    if (letter == 'd') record->listener.transportId = 11;
    record->listener.inboundHooks = letter == 'h' || letter == 'q';
    return event;
}

// The listener of x is destroyed and that of r removed while messages wait. Hooks let each second
// message pass.
TEST(Dispatch, BatchesWhatMayComeTogether) {
    static uint32_t asked;
    const std::string full(128, 'a');
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
        {"rpr", {"p"}, {"p"}},
        {"hhhhhqq", {"hh", "q"}, {"hh", "q"}},
        {full + "b", {full, "b"}, {full, "b"}},
        {full + full + "aab", {full, full, "aab"}, {full, full, "aa", "b"}},
    };
    for (const auto& [posted, mixed, single] : cases) {
        for (const bool isSingle : {false, true}) {
            SCOPED_TRACE(posted + (isSingle ? " single" : ""));
            const DispatchFixture stand;
            asked = 0;
            transportOps.runInboundHooks = [](uint32_t, pelmoMsg*) { return ++asked % 2 == 0; };
            uint32_t events[128] = {};
            for (const char letter : std::string("abcdehpqrx"))
                events[size_t(letter)] = listenAs(letter, stand.queue);
            std::vector<uint32_t> order;
            for (const char letter : posted)
                order.push_back(events[size_t(letter)]);
            postBatch(stand.queue, order);
            pelmoEvent_DestroyEx(events['x'], nullptr);
            transportOps.removeListener(kLocal, recordOf<Event>(events['r']));

            calls.clear();
            const auto step = isSingle ? pelmoQueue_TimedDispatchSingle : pelmoQueue_TimedDispatch;
            while (step(stand.queue, 0) == kStatusSuccess) {
            }
            EXPECT_EQ(calls, isSingle ? single : mixed);
        }
    }
}

// A callback ends what it runs on, a letter each: e the event, q the queue, n dispatches the queue
// once more, l the library. Completions E and Q come once, after the last callback under way.
TEST(Dispatch, LivesThroughTheEndOfItsObjects) {
    static uint32_t queue;
    static const char* acts;
    static std::string order;
    const char* const cases[][2] = {{"e", "()E"},  {"q", "()Q"},    {"qe", "()EQ"},
                                    {"lq", "()Q"}, {"ne", "(())E"}, {"nq", "(())Q"}};
    action = [](uint32_t event) {
        order += '(';
        while (*acts != '\0') {
            const char act = *acts++;
            libraryOpen = libraryOpen && act != 'l';
            if (act == 'n') {
                EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
            } else if (act == 'e') {
                const auto done = [](uint32_t, void*) { order += 'E'; };
                EXPECT_EQ(pelmoEvent_DestroyEx(event, done), kStatusSuccess);
            } else if (act == 'q') {
                const auto done = [](uint32_t, void* mark) { order += *static_cast<char*>(mark); };
                static char mark = 'Q';
                EXPECT_EQ(pelmoQueue_DestroyEx(queue, done, &mark), kStatusSuccess);
                EXPECT_EQ(Queue_DispatchId(queue, 0), kStatusInvalidQueue);
            }
        }
        order += ')';
    };
    for (const auto& [todo, expected] : cases) {
        const DispatchFixture stand;
        queue = stand.queue;
        acts = todo;
        order.clear();
        const uint32_t event = listen(queue, onEvent);
        auto* const last = const_cast<pelmoMsg*>(postBatch(queue, {event, event, event})[2]);
        msgRetain(last);
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, 0), kStatusSuccess);
        dispatchAll(queue);  // nothing is called again
        EXPECT_EQ(order, expected) << todo;
        EXPECT_EQ(last->refCount, 1u) << todo;  // what wasn't called is gone
        msgRelease(last);
    }
}

enum class WaitOn { kQueue, kGroup, kPoll };

// Waits are dispatches of a queue or of the group of that queue, or polls of a queue.
struct DispatchWaits : testing::TestWithParam<WaitOn> {
    DispatchFixture stand;
    const bool isGroup = GetParam() == WaitOn::kGroup, isPoll = GetParam() == WaitOn::kPoll;
    const uint32_t queue = isPoll ? makeQueue(true) : stand.queue;
    const uint32_t id = isGroup ? stand.group : queue;

    pelmoStatus wait(double seconds) const {
        if (!isPoll)
            return (isGroup ? pelmoQueueGroup_TimedDispatch : pelmoQueue_TimedDispatch)(id,
                                                                                        seconds);
        pelmoMsg* message = nullptr;
        const pelmoStatus status = pelmoQueue_Poll(id, &message, seconds);
        if (message != nullptr) pelmoMsg_Destroy(message);
        return status;
    }

    // Calls `act` once so many threads wait without limit, each for that answer.
    template <typename Act>
    void whileSoManyWait(int count, pelmoStatus expected, Act act) const {
        std::vector<std::jthread> threads;
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this, expected] { EXPECT_EQ(wait(-1.0), expected); });
        awaitWaiting(count);
        act();
    }

    void awaitWaiting(int count) const {
        (isGroup ? awaitWaiters<QueueGroup> : awaitWaiters<Queue>)(id, count);
    }

    void end() const {
        pelmoQueueGroup_Destroy(stand.group);
        pelmoQueue_DestroyEx(queue, nullptr, nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(On,
                         DispatchWaits,
                         testing::Values(WaitOn::kQueue, WaitOn::kGroup, WaitOn::kPoll));

TEST_P(DispatchWaits, EndWithTheObject) {
    const pelmoStatus gone = isGroup ? kStatusInvalidQueueGroup : kStatusInvalidQueue;
    whileSoManyWait(3, gone, [this] { end(); });
}

TEST_P(DispatchWaits, EndWithTheLibrary) {
    whileSoManyWait(3, kStatusNotInitialized, [this] {
        libraryOpen = false;
        end();
    });
}

// Many posts before a waiter wakes leave it one signal: each wakes the next. Every callback waits
// for all the others, and the test for all polls, so a thread left asleep would hang the test.
TEST_P(DispatchWaits, WakeAsManyThreadsAsThereAreEntries) {
    constexpr int kThreads = 3;
    std::barrier<> together(kThreads);
    action = [&](uint32_t) { together.arrive_and_wait(); };
    const std::vector<uint32_t> entries(kThreads, listen(queue, onEvent));
    for (int round = 0; round < 50; ++round)
        whileSoManyWait(kThreads, kStatusSuccess, [&] { postBatch(queue, entries); });
}

// An hour goes by at each look at the clock, which is taken at spurious wake-ups alone: the second
// one uses up the time that the first one left whole.
TEST_P(DispatchWaits, CountTheTimeFromTheFirstSpuriousWakeUp) {
    static std::atomic<int> looks;
    // Begins the clock, and uses up the signal that a group remembers of its first queue.
    EXPECT_EQ(wait(0.001), kStatusTimeout);
    (void)clockSteadySeconds();
    looks = 0;
    const MonotonicClock hours([] { return timespec{++looks * 3600 + 1000000, 0}; });
    std::atomic<bool> ended = false;
    std::thread thread([&] {
        EXPECT_EQ(wait(3000.0), kStatusTimeout);
        ended = true;
    });
    for (int wakes = 1; wakes <= 2; ++wakes) {
        awaitWaiting(1);
        EXPECT_FALSE(ended);
        Cond_Signal(isGroup ? &recordOf<QueueGroup>(id)->cond : &recordOf<Queue>(id)->cond);
        while (looks < wakes)
            std::this_thread::yield();
    }
    thread.join();
}

TEST(QueueGroupDispatch, TakesTurnsByPriority) {
    const struct {
        const char* posted;
        Calls expected;
    } cases[] = {
        {"aaabbbccc", {"a", "b", "c", "a", "b", "c", "a", "b", "c"}},
        {"aab", {"a", "b", "a"}},
        {"bcca", {"a", "b", "c", "c"}},
        {"ccch", {"h", "c", "c", "c"}},
        {"aabbhhh", {"h", "h", "h", "a", "b", "a", "b"}},
        {"aalhb", {"h", "a", "b", "a", "l"}},
    };
    for (const auto& [posted, expected] : cases) {
        SCOPED_TRACE(posted);
        const DispatchFixture stand;
        uint32_t queues[128] = {}, events[128] = {};
        for (const char name : {'l', 'a', 'b', 'c', 'h'}) {
            const auto at = size_t(name);
            queues[at] = makeQueue();
            events[at] = listen(queues[at], onPlain, &letters[name - 'a']);
            const uint32_t priority = name == 'h' ? 9 : name == 'l' ? 0 : 1;
            EXPECT_EQ(pelmoQueue_SetPriority(queues[at], priority), kStatusSuccess);
            EXPECT_EQ(pelmoQueueGroup_Add(stand.group, queues[at]), kStatusSuccess);
        }
        for (const char* at = posted; *at != '\0'; ++at)
            postBatch(queues[size_t(*at)], {events[size_t(*at)]});
        calls.clear();
        while (pelmoQueueGroup_TimedDispatch(stand.group, 0) == kStatusSuccess) {
        }
        EXPECT_EQ(calls, expected);
    }
}

// Two threads dispatch, one posts, one makes and ends the events, at last the queue. Completions
// come once for each, and no callback after its event's.
TEST(DispatchStress, MeetsTheEndOfEventsAndQueues) {
    constexpr size_t kEvents = 4, kRounds = 300;
    static std::atomic<size_t> eventsDone, queuesDone;
    eventsDone = queuesDone = 0;
    std::vector<std::atomic<bool>> ended(kRounds * kEvents);
    const DispatchFixture stand;
    for (size_t round = 0; round < kRounds; ++round) {
        const uint32_t queue = makeQueue();
        uint32_t events[kEvents];
        for (size_t i = 0; i < kEvents; ++i) {
            const auto check = [](uint32_t, pelmoMsg*, void* gone) {
                EXPECT_FALSE(*static_cast<std::atomic<bool>*>(gone));
            };
            events[i] = listen(queue, check, &ended[round * kEvents + i]);
        }
        const auto dispatch = [queue] {
            while (pelmoQueue_TimedDispatch(queue, -1.0) == kStatusSuccess) {
            }
        };
        std::thread first(dispatch), second(dispatch);
        std::thread poster([&] {
            for (size_t i = 0; i < 40; ++i)
                postBatch(queue, {events[i % kEvents], events[0]});
        });
        for (const uint32_t event : events) {
            pelmoEvent_DestroyEx(event, [](uint32_t, void* gone) {
                EXPECT_FALSE(static_cast<std::atomic<bool>*>(gone)->exchange(true));
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

// Listens for threads that end.
struct Exits {
    const uint32_t queue = makeQueue();
    const std::string prefix = "_PM.INFO.SYSTEM.DISPATCHER.THREAD_EXITED.";
    TestListener listener{queue, (prefix + "*").c_str()};
    std::string report;

    // Waits for it: "<name>: <status> <description>".
    std::string next() {
        listener.onMessage = [this](pelmoMsg* message) {
            const char *subject = "", *description = "";
            uint32_t status = 0;
            EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_GetU32(message, "status", &status, 0), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_GetString(message, "description", &description, 0), kStatusSuccess);
            report = subject + prefix.size();
            report += ": " + std::to_string(status) + " " + description;
        };
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, -1.0), kStatusSuccess);
        return report;
    }
};

TEST(Dispatcher, ReportsHowItsThreadEnded) {
    static uint32_t queue, group, dispatcher;
    const auto nothing = [] {};
    const auto endQueue = [] { pelmoQueue_DestroyEx(queue, nullptr, nullptr); };
    const auto endGroup = [] { pelmoQueueGroup_Destroy(group); };
    const auto endIt = [] { pelmoDispatcher_Destroy(dispatcher); };
    action = [](uint32_t) {};
    const std::string tooLong(240, 'x');
    const struct {
        const char* name;
        bool onGroup;
        double seconds;
        void (*end)();
        const char* report;
    } cases[] = {
        {"", false, -1.0, endIt, "dispatcher: 53 Invalid dispatcher"},  // none makes a subject
        {"a..b", false, -1.0, endIt, "dispatcher: 53 Invalid dispatcher"},
        {tooLong.c_str(), false, -1.0, endIt, "dispatcher: 53 Invalid dispatcher"},
        {nullptr, true, 0.001, nothing, "dispatcher: 50 Operation timed out"},
        {"worker", false, -1.0, endQueue, "worker: 62 Invalid queue"},
        {"w", true, -1.0, endGroup, "w: 63 Invalid queue group"},
        {"w", false, -1.0, endIt, "w: 53 Invalid dispatcher"},
    };
    for (const auto& [name, onGroup, seconds, end, report] : cases) {
        const DispatchFixture stand;
        Exits exits;
        queue = stand.queue;
        group = stand.group;
        EXPECT_EQ(pelmoDispatcher_CreateEx(&dispatcher, onGroup ? group : queue, seconds),
                  kStatusSuccess);
        if (name != nullptr) {
            EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, name), kStatusSuccess);
            const FailAlloc fail{.after = 0};
            EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, "other"), kStatusNoMemory);
        }
        // Another who waits wakes with the dispatcher, and goes on waiting when it ends alone.
        std::thread other;
        if (!onGroup) {
            const pelmoStatus status = end == +endQueue ? kStatusInvalidQueue : kStatusSuccess;
            other =
                std::thread([status] { EXPECT_EQ(pelmoQueue_TimedDispatch(queue, -1.0), status); });
        }
        // One that is destroyed before its thread has begun ends silently.
        if (seconds < 0)
            (onGroup ? awaitWaiters<QueueGroup>(group, 1) : awaitWaiters<Queue>(queue, 2));
        end();
        EXPECT_EQ(exits.next(), report);
        pelmoDispatcher_Destroy(dispatcher);
        if (onGroup) continue;
        if (end == +endIt) {
            awaitWaiters<Queue>(queue, 1);
            postBatch(queue, {listen(queue, onEvent)});
        }
        other.join();
    }
}

// The thread ends when the callback has returned; a thread that joins it meanwhile waits for that.
TEST(Dispatcher, IsDestroyedByItsOwnCallback) {
    static std::atomic<uint32_t> dispatcher;
    static std::atomic<bool> returned;
    dispatcher = kNoId;
    returned = false;
    const DispatchFixture stand;
    Exits exits;
    const auto destroyOwn = [](uint32_t, pelmoMsg*, void*) {
        dispatcher.wait(kNoId);
        EXPECT_EQ(pelmoDispatcher_Join(dispatcher), kStatusOsError);
        EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
        EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusInvalidDispatcher);
        returned = true;
    };
    postBatch(stand.queue, std::vector<uint32_t>(3, listen(stand.queue, destroyOwn)));
    uint32_t made = kNoId;
    EXPECT_EQ(pelmoDispatcher_CreateEx(&made, stand.queue, -1.0), kStatusSuccess);
    const auto join = [made] {
        // The callback may have destroyed it first.
        if (pelmoDispatcher_Join(made) == kStatusSuccess) {
            EXPECT_TRUE(returned);
        }
    };
    std::thread one(join), two(join);
    dispatcher = made;
    dispatcher.notify_all();
    one.join();
    two.join();
    EXPECT_EQ(exits.next(), "dispatcher: 53 Invalid dispatcher");
    EXPECT_EQ(countOf(stand.queue), 2U);
}

}  // namespace
