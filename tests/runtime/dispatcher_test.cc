// Dispatchers: how their threads end and report it, from where they may be destroyed and joined,
// and that the end of one doesn't disturb others that wait on its queue.

#include "lib/runtime/dispatcher.h"

#include <atomic>
#include <cstring>

#include "tests/runtime/dispatch_fixture.h"
#include "tests/support/fail_alloc.h"

namespace {

uint32_t newDispatcher(uint32_t dispatchable, double seconds = -1.0) {
    uint32_t dispatcher = kNoId;
    EXPECT_EQ(pelmoDispatcher_CreateEx(&dispatcher, dispatchable, seconds), kStatusSuccess);
    return dispatcher;
}

// Listens for threads that end.
struct Exits {
    const uint32_t queue = makeQueue();
    TestListener listener{queue, "_PM.INFO.SYSTEM.DISPATCHER.THREAD_EXITED.*"};
    std::string report;

    Exits() {
        listener.onMessage = [this](pelmoMsg* message) {
            const char* subject = "";
            const char* description = "";
            uint32_t status = 0;
            EXPECT_EQ(pelmoMsg_GetSendSubject(message, &subject), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_GetU32(message, "status", &status, 0), kStatusSuccess);
            EXPECT_EQ(pelmoMsg_GetString(message, "description", &description, 0), kStatusSuccess);
            const std::string name =
                subject + std::strlen("_PM.INFO.SYSTEM.DISPATCHER.THREAD_EXITED.");
            report = name + ": " + std::to_string(status) + " " + description;
        };
    }

    // Waits for it: "<name>: <status> <description>".
    std::string next() {
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
        dispatcher = newDispatcher(onGroup ? group : queue, seconds);
        if (name != nullptr) {
            EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, name), kStatusSuccess);
            const FailAlloc fail{.after = 0};
            EXPECT_EQ(pelmoDispatcher_SetName(dispatcher, "other"), kStatusNoMemory);
        }
        // One that is destroyed before its thread has begun ends silently.
        if (seconds < 0)
            (onGroup ? awaitWaiters<QueueGroup>(group, 1) : awaitWaiters<Queue>(queue, 1));
        end();
        EXPECT_EQ(exits.next(), report);
        pelmoDispatcher_Destroy(dispatcher);
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
    const uint32_t made = newDispatcher(stand.queue);
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

std::atomic<int> dispatched;

void count(uint32_t, pelmoMsg*, void*) {
    ++dispatched;
}

// Others wake when one is stopped, and go on waiting.
TEST(Dispatcher, EndsAloneAmongWaiters) {
    const DispatchFixture stand;
    dispatched = 0;
    const uint32_t dispatchers[] = {newDispatcher(stand.queue), newDispatcher(stand.queue)};
    std::thread plain([&stand] {
        EXPECT_EQ(pelmoQueue_TimedDispatch(stand.queue, -1.0), kStatusSuccess);
        EXPECT_EQ(dispatched, 1);
    });
    int32_t waiting = 3;
    for (const uint32_t dispatcher : dispatchers) {
        awaitWaiters<Queue>(stand.queue, waiting--);
        EXPECT_EQ(pelmoDispatcher_Destroy(dispatcher), kStatusSuccess);
    }
    awaitWaiters<Queue>(stand.queue, waiting);
    postBatch(stand.queue, {listen(stand.queue, count)});
    plain.join();
}

}  // namespace
