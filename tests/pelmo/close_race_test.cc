// Opens and closes against everything else.

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <latch>

#include "lib/pelmo.h"
#include "lib/runtime/id.h"
#include "lib/runtime/library.h"
#include "lib/transport/transport.h"
#include "tests/support/runtime_objects.h"

namespace {

constexpr int kRounds = 60;

void onEvent(uint32_t, pelmoMsg*, void*) {}

// Each does one piece of work, whatever it is answered.

void makeTimers() {
    uint32_t queue = 0, timer = 0;
    if (pelmoQueue_Create(&queue) != kStatusSuccess) return;
    const pelmoStatus status = pelmoEvent_CreateTimer(&timer, queue, onEvent, 0, nullptr);
    EXPECT_NE(status, kStatusInvalidEvent);
    if (status == kStatusSuccess) {
        (void)pelmoQueue_TimedDispatch(queue, 0.002);
        pelmoEvent_ResetTimerInterval(timer, 0.001);
        pelmoEvent_DestroyEx(timer, nullptr);
    }
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

void makeIoEvents() {
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) return;
    for (const uint32_t queue : {kDefaultQueueId, kFirstIoQueueId}) {
        uint32_t event = 0;
        (void)pelmoEvent_CreateIO(&event, queue, onEvent, sockets[0], kIoWrite, nullptr);
        if (event != 0) pelmoEvent_DestroyEx(event, nullptr);
    }
    for (const int socket : sockets)
        close(socket);
}

void sendMessages() {
    uint32_t listener = 0;
    EXPECT_NE(pelmoEvent_CreateListener(&listener, kDefaultQueueId, onEvent,
                                        kIntraProcessTransportId, "A.*", nullptr),
              kStatusNoMemory);
    pelmoMsg* message = nullptr;
    if (pelmoMsg_Create(&message) == kStatusSuccess) {
        (void)pelmoMsg_SetSendSubject(message, "A.B");
        for (int i = 0; i < 5; ++i)
            (void)pelmoTransport_Send(kIntraProcessTransportId, message);
        pelmoMsg* reply = nullptr;
        (void)pelmoTransport_SendRequest(kIntraProcessTransportId, message, &reply, 0.001);
        pelmoMsg_Destroy(message);
    }
    if (listener != 0) pelmoEvent_DestroyEx(listener, nullptr);
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
    (void)_pelmoTransport_AddPolledListener(&listener, queue, kIntraProcessTransportId, "A.B");
    pelmoMsg* message = nullptr;
    if (pelmoQueue_Poll(queue, &message, 0.002) == kStatusSuccess && message != nullptr) {
        pelmoMsg_Destroy(message);
    }
    pelmoQueue_DestroyEx(queue, nullptr, nullptr);
}

void makeCircuits() {
    uint32_t ends[2] = {0, 0};
    const char* subject = nullptr;
    if (vcCreateAccept(&ends[0], &subject, kIntraProcessTransportId) != kStatusSuccess) return;
    (void)vcCreateConnect(&ends[1], "_INBOX.1", kIntraProcessTransportId);
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
    for (int round = 0; round < kRounds; ++round) {
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
    EXPECT_FALSE(libraryIsOpen());
    EXPECT_EQ(objectCount(), 0u);
}

}  // namespace
