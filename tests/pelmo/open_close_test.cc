#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <latch>

#include "lib/pelmo.h"
#include "lib/runtime/id.h"
#include "lib/runtime/library.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/runtime_objects.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test.h"

namespace {

void expectNothingLeft() {
    EXPECT_FALSE(libraryIsOpen());
    EXPECT_EQ(objectCount(), 0u);
}

uint32_t newQueue() {
    uint32_t queue = 0;
    EXPECT_EQ(pelmoQueue_Create(&queue), kStatusSuccess);
    return queue;
}

uint32_t newTimer(uint32_t queue, pelmoEventCallback callback, void* closure = nullptr) {
    uint32_t timer = 0;
    EXPECT_EQ(pelmoEvent_CreateTimer(&timer, queue, callback, 0.001, closure), kStatusSuccess);
    return timer;
}

// Runs the body in a process of its own, which has never opened the library.
template <typename Body>
int inFreshProcess(Body body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

enum Outcome { kRefused, kRefusedForGood, kOpened, kNoFailureMet, kWrong };

Outcome firstOpen(size_t after, bool forGood) {
    pelmoStatus status;
    {
        const FailAlloc fail{.after = after, .forGood = forGood};
        status = pelmo_Open();
    }
    const bool met = allocationsFailed() > 0;
    if (status == kStatusInitFailed) {
        return met && pelmo_Open() == kStatusInitFailed ? kRefusedForGood : kWrong;
    }
    if (status != kStatusSuccess && libraryIsOpen()) return kWrong;
    if (status != kStatusSuccess && pelmo_Open() != kStatusSuccess) return kWrong;
    if (pelmo_Close() != kStatusSuccess || pelmo_Close() != kStatusNotInitialized) return kWrong;
    if (!met) return kNoFailureMet;
    return status == kStatusSuccess ? kOpened : kRefused;
}

// Before the other tests, as long as this process has no threads.
TEST(LibraryDeathTest, AFirstOpenThatFailsLeavesTheNextOneToSucceed) {
    for (const bool forGood : {false, true}) {
        int outcomes[kWrong + 1] = {};
        for (size_t after = 0; outcomes[kNoFailureMet] == 0; ++after) {
            const int outcome = inFreshProcess([&] { return firstOpen(after, forGood); });
            ASSERT_TRUE(outcome >= 0 && outcome < kWrong) << after << (forGood ? " for good" : "");
            ++outcomes[outcome];
        }
        EXPECT_GT(outcomes[kRefusedForGood], 0);  // the set-up of the process
        EXPECT_GT(outcomes[kRefused], 10);
    }
}

TEST(Library, MakesItsOwnObjectsAtTheFirstOpenAndEndsAllAtTheLastClose) {
    const struct {
        uint32_t queue;
        const char* name;
    } queues[] = {{1, "Default Queue"},
                  {2, "Event Manager Timer Queue"},
                  {3, "Work Queue"},
                  {5, "PELMO IO Queue 1"}};
    const Leftovers before = leftovers();
    uint32_t lastId = kLastFixedId;
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(pelmo_Close(), kStatusNotInitialized);
        ASSERT_EQ(pelmo_Open(), kStatusSuccess);
        ASSERT_EQ(pelmo_Open(), kStatusSuccess);
        EXPECT_EQ(threadCount(), before.threads + 3);  // timers, IO, work
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        for (const auto& [queue, expected] : queues) {
            const char* name = nullptr;
            ASSERT_EQ(pelmoQueue_GetName(queue, &name), kStatusSuccess) << queue;
            EXPECT_STREQ(name, expected);
        }
        EXPECT_EQ(Id_Check(6, IdType::kQueue), kStatusNotFound);
        EXPECT_EQ(Id_Check(10, IdType::kTransport), kStatusSuccess);
        EXPECT_EQ(Id_Check(10, IdType::kQueue), kStatusNotFound);
        EXPECT_EQ(pelmoQueue_DestroyEx(1, nullptr, nullptr), kStatusNotPermitted);
        const uint32_t queue = newQueue();
        EXPECT_GT(queue, lastId);  // ids go on counting
        lastId = queue;
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        EXPECT_EQ(Id_Check(queue, IdType::kQueue), kStatusNotFound);
        expectNothingLeft();
        EXPECT_EQ(leftoversOnceThey(before), before);
    }
    EXPECT_STREQ(pelmo_Version(), "8.5.2");
}

// A user's thread that dispatches; closing the library doesn't wait for it.
TEST(Library, KeepsAnEventWhileItsCallbackRunsThroughTheClose) {
    struct Meeting {
        std::latch inside{1}, closed{1};
        pelmoStatus found = kStatusNotFound, answered = kStatusSuccess;
    } meeting;
    ASSERT_EQ(pelmo_Open(), kStatusSuccess);
    const uint32_t queue = newQueue();
    const auto callback = [](uint32_t event, pelmoMsg*, void* closure) {
        auto& both = *static_cast<Meeting*>(closure);
        both.inside.count_down();
        both.closed.wait();
        both.found = Id_Check(event, IdType::kEvent);
        uint32_t kind = 0;
        both.answered = pelmoEvent_GetType(event, &kind);
    };
    const uint32_t timer = newTimer(queue, callback, &meeting);
    pelmoStatus after = kStatusSuccess;
    std::jthread dispatching([&] {
        EXPECT_EQ(pelmoQueue_TimedDispatch(queue, -1.0), kStatusSuccess);
        after = pelmoQueue_TimedDispatch(queue, -1.0);
    });
    meeting.inside.wait();
    EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    meeting.closed.count_down();
    dispatching.join();
    EXPECT_EQ(meeting.found, kStatusSuccess);
    EXPECT_EQ(meeting.answered, kStatusNotInitialized);
    EXPECT_EQ(after, kStatusNotInitialized);
    EXPECT_EQ(Id_Check(timer, IdType::kEvent), kStatusNotFound);
    expectNothingLeft();
}

// From a callback, or the completion that follows it, on a thread of the library's or the user's.
TEST(Library, IsClosedFromACallback) {
    static constexpr auto close = [](uint32_t, void* done) {
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        *static_cast<std::atomic<bool>*>(done) = true;
    };
    const pelmoEventCallback fromCallback = [](uint32_t event, pelmoMsg*, void* done) {
        pelmoEvent_DestroyEx(event, nullptr);
        close(event, done);
    };
    const pelmoEventCallback fromCompletion = [](uint32_t event, pelmoMsg*, void*) {
        pelmoEvent_DestroyEx(event, close);
    };
    for (const uint32_t fixed : {kNoId, kDefaultQueueId, kTimerQueueId, kWorkQueueId}) {
        for (const pelmoEventCallback callback : {fromCallback, fromCompletion}) {
            SCOPED_TRACE(fixed);
            ASSERT_EQ(pelmo_Open(), kStatusSuccess);
            std::atomic<bool> done = false;
            const uint32_t queue = fixed != kNoId ? fixed : newQueue();
            uint32_t dispatcher = 0;
            if (fixed == kNoId) {
                ASSERT_EQ(pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0), kStatusSuccess);
            }
            newTimer(queue, callback, &done);
            if (fixed == kDefaultQueueId) {
                EXPECT_EQ(pelmoQueue_TimedDispatch(queue, -1.0), kStatusSuccess);
            }
            while (!done)
                sched_yield();
            // The next open waits for the end of the close.
            ASSERT_EQ(pelmo_Open(), kStatusSuccess);
            EXPECT_EQ(pelmo_Close(), kStatusSuccess);
            expectNothingLeft();
        }
    }
}

// An unknown module ends the tracing, not the open.
TEST(Library, TracesAsTheEnvironmentSays) {
    const Folder folder;
    setenv("_PM_TRACING_FILE", folder.path("trace").c_str(), 1);
    setenv("_PM_TRACING_MODULES", "PELMO,M,MSG_", 1);
    ASSERT_EQ(pelmo_Open(), kStatusSuccess);
    (void)pelmo_Version();
    pelmoMsg* message = nullptr;
    ASSERT_EQ(pelmoMsg_Create(&message), kStatusSuccess);
    (void)pelmoMsg_AddNone(message, "n", 5);
    (void)pelmoMsg_Expand(message, -1);
    (void)pelmoMsg_Destroy(message);
    pelmo_Close();
    (void)pelmo_Version();  // without a line
    const std::string text = readFile(folder.path("trace"));
    size_t at = 0;
    for (const char* part :
         {"\nPelmo API\n", "\nVersion 8.5.2 V1 11/12/20 06:41:40\n", "[PELMO][",
          "]: pelmo_Open()\n", "]: pelmo_Version()\n", "[MSG][", "]: Message 0x", " created\n",
          "]: pelmoMsg_Create(0x", "[MSG_DETAIL][", "]: pelmoMsg_AddField(0x", ") type=22\n",
          "[MSG_DETAIL][", "]: pelmoMsg_Expand(0x", ", -1)\n", "]: pelmoMsg_Destroy(0x",
          "]: Message 0x", " destroyed\n", "]: pelmo_Close()\n"}) {
        at = text.find(part, at);
        ASSERT_NE(at, text.npos) << part;
    }
    EXPECT_EQ(text.find("Version", at), text.npos);

    setenv("_PM_TRACING_FILE", folder.path("none").c_str(), 1);
    setenv("_PM_TRACING_MODULES", "NOSUCH", 1);
    ASSERT_EQ(pelmo_Open(), kStatusSuccess);
    pelmo_Close();
    EXPECT_EQ(folder.names(), std::set<std::string>({"trace"}));
    unsetenv("_PM_TRACING_FILE");
    unsetenv("_PM_TRACING_MODULES");
}

}  // namespace
