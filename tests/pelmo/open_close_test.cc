// Opens and closes: what they make, leave and answer, and against everything else.

#include <sys/wait.h>

#include <latch>

#include "lib/pelmo.h"
#include "tests/runtime/event_stand.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/local_bus.h"
#include "tests/support/scratch_folder.h"

namespace {

void expectNothingLeft() {
    EXPECT_FALSE(libraryIsOpen());
    EXPECT_EQ(objectCount(), 0u);
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
            const pid_t child = fork();  // which has never opened the library
            if (child == 0) _exit(firstOpen(after, forGood));
            int status = -1;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            const int outcome = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            ASSERT_TRUE(outcome >= 0 && outcome < kWrong) << after << (forGood ? " for good" : "");
            ++outcomes[outcome];
        }
        EXPECT_GT(outcomes[kRefusedForGood], 0);  // the set-up of the process
        EXPECT_GT(outcomes[kRefused], 10);
    }
}

TEST(Library, MakesItsOwnObjectsAtTheFirstOpenAndEndsAllAtTheLastClose) {
    const std::pair<uint32_t, const char*> queues[] = {{1, "Default Queue"},
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
        const uint32_t queue = makeQueue();
        EXPECT_GT(queue, lastId);  // ids go on counting
        lastId = queue;
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
        expectNothingLeft();
        EXPECT_EQ(leftoversOnceThey(before), before);
    }
    EXPECT_STREQ(pelmo_Version(), "8.5.2");
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
            const uint32_t queue = fixed != kNoId ? fixed : makeQueue();
            uint32_t dispatcher = 0, timer = 0;
            if (fixed == kNoId) (void)pelmoDispatcher_CreateEx(&dispatcher, queue, -1.0);
            EXPECT_EQ(pelmoEvent_CreateTimer(&timer, queue, callback, 0.001, &done),
                      kStatusSuccess);
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
    const auto open = [&](const char* file, const char* modules) {
        setenv("_PM_TRACING_FILE", folder.path(file).c_str(), 1);
        setenv("_PM_TRACING_MODULES", modules, 1);
        EXPECT_EQ(pelmo_Open(), kStatusSuccess);
        unsetenv("_PM_TRACING_FILE");
        unsetenv("_PM_TRACING_MODULES");
    };
    open("trace", "PELMO,M,MSG_");
    (void)pelmo_Version();
    {
        const Message message = newMessage();
        (void)pelmoMsg_AddNone(message.get(), "n", 5);
        (void)pelmoMsg_Expand(message.get(), -1);
    }
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

    open("none", "NOSUCH");
    pelmo_Close();
    EXPECT_EQ(folder.names(), std::set<std::string>({"trace"}));
}

// Each does one piece of work, whatever it is answered.

void makeTimers() {
    uint32_t queue = 0, timer = 0;
    if (pelmoQueue_Create(&queue) != kStatusSuccess) return;
    const pelmoStatus status = pelmoEvent_CreateTimer(&timer, queue, ignoreEvent, 0, nullptr);
    EXPECT_NE(status, kStatusInvalidEvent);
    if (status == kStatusSuccess) {
        (void)pelmoQueue_TimedDispatch(queue, 0.002);
        pelmoEvent_ResetTimerInterval(timer, 0.001);
        pelmoEvent_DestroyEx(timer, nullptr);
    }
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

void makeIoEvents() {
    const SocketPair pair;
    for (const uint32_t queue : {kDefaultQueueId, kFirstIoQueueId}) {
        uint32_t event = 0;
        (void)pelmoEvent_CreateIO(&event, queue, ignoreEvent, pair.ends[0], kIoWrite, nullptr);
        if (event != 0) pelmoEvent_DestroyEx(event, nullptr);
    }
}

void sendMessages() {
    uint32_t listener = kNoId;
    (void)pelmoEvent_CreateListener(&listener, kDefaultQueueId, ignoreEvent, kLocal, "A.*",
                                    nullptr);
    const Message message = messageOn("A.B");
    for (int i = 0; i < 5; ++i)
        (void)pelmoTransport_Send(kLocal, message.get());
    pelmoMsg* reply = nullptr;
    (void)pelmoTransport_SendRequest(kLocal, message.get(), &reply, 0.001);
    pelmoEvent_DestroyEx(listener, nullptr);
}

void dispatchGroups() {
    uint32_t group = 0;
    if (pelmoQueueGroup_Create(&group) != kStatusSuccess) return;
    (void)pelmoQueueGroup_Add(group, kDefaultQueueId);
    for (int i = 0; i < 5; ++i)
        (void)pelmoQueueGroup_TimedDispatch(group, 0.001);
    pelmoQueueGroup_Destroy(group);
}

void makeDispatchers() {
    uint32_t dispatcher = 0;
    if (pelmoDispatcher_CreateEx(&dispatcher, kDefaultQueueId, -1.0) != kStatusSuccess) return;
    (void)pelmoDispatcher_SetName(dispatcher, "racing");
    pelmoDispatcher_Destroy(dispatcher);
}

void pollQueues() {
    uint32_t queue = 0, listener = 0;
    if (pelmoQueue_CreateSynchronous(&queue) != kStatusSuccess) return;
    (void)_pelmoTransport_AddPolledListener(&listener, queue, kLocal, "A.B");
    pelmoMsg* message = nullptr;
    if (pelmoQueue_Poll(queue, &message, 0.002) == kStatusSuccess && message != nullptr) {
        pelmoMsg_Destroy(message);
    }
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

void makeCircuits() {
    uint32_t ends[2] = {0, 0};
    const char* subject = nullptr;
    if (vcCreateAccept(&ends[0], &subject, kLocal) != kStatusSuccess) return;
    (void)vcCreateConnect(&ends[1], "_INBOX.1", kLocal);
    for (const uint32_t end : ends) {
        (void)vcWaitForConnection(end, 0.001);
        pelmoTransport_Destroy(end);
    }
}

void openAndClose() {
    if (pelmo_Open() == kStatusSuccess) pelmo_Close();
}

void waitForever() {
    (void)pelmoQueue_TimedDispatch(kDefaultQueueId, -1.0);
}

TEST(Close, MeetsEverythingElse) {
    void (*const works[])() = {makeTimers,      makeIoEvents,    sendMessages, dispatchGroups,
                               makeDispatchers, pollQueues,      makeCircuits, openAndClose,
                               waitForever,     pelmo_WaitClosed};
    openAndClose();  // the first open of the process may not race
    std::atomic<bool> over = false;
    std::latch ready(std::size(works) + 1);
    std::vector<std::jthread> threads;
    for (auto* const work : works) {
        threads.emplace_back([&over, &ready, work] {
            ready.arrive_and_wait();
            while (!over)
                work();
        });
    }
    ready.arrive_and_wait();
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(pelmo_Open(), kStatusSuccess);
        sendMessages();
        EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    }
    over = true;
    threads.clear();

    // What was made while the library closed goes with the next close.
    ASSERT_EQ(pelmo_Open(), kStatusSuccess);
    makeTimers();
    EXPECT_EQ(pelmo_Close(), kStatusSuccess);
    expectNothingLeft();
}

}  // namespace
