// The fixture of events: the event manager's parts without its threads, on stopped clocks. The test
// itself lets time pass and makes the passes.

#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include "lib/runtime/io_events.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/wakeup_pair.h"
#include "tests/support/runtime_objects.h"
#include "tests/support/test.h"

struct EventStand : NoCopy {
    EventStand() {
        EXPECT_EQ(Queue_Create(nullptr, kFirstIoQueueId, "io", false, false), kStatusSuccess);
        {
            LockGuard guard(evmLock);
            epoch = ++evmEpoch;
            EXPECT_EQ(timersOpenLocked(), kStatusSuccess);
            EXPECT_EQ(ioThreadAddLocked(kFirstIoQueueId, &io), kStatusSuccess);
        }
        EXPECT_EQ(wakeupPairCreate(&io->pair, kFirstIoQueueId, nullptr, nullptr, nullptr),
                  kStatusSuccess);
        io->wake = wakeupPairWake;
    }
    ~EventStand() {
        wakeupPairDestroy(io->pair);
        LockGuard guard(evmLock);
        ++evmEpoch;
        timersCloseLocked();
        ioThreadsClearLocked();
    }

    // One pass of the IO thread that doesn't wait.
    void ioPass() const {
        wakeupPairWake(io->pair);
        EXPECT_TRUE(ioThreadPass(io, true));
        dispatchAll(kFirstIoQueueId);
    }

    // Fires the timers that are due so many seconds from the start, of one pass; how many.
    uint32_t fire(double seconds) const { return timersFire(epoch, start + seconds); }

    uint32_t timer(double interval, pelmoEventCallback callback, void* closure = nullptr) const {
        uint32_t event = kNoId;
        EXPECT_EQ(pelmoEvent_CreateTimer(&event, queue, callback, interval, closure),
                  kStatusSuccess);
        return event;
    }

    RuntimeTables tables;
    FixedMonotonic clock{1'000};
    const double start = clockSteadySeconds();
    uint32_t queue = makeQueue();
    uint32_t epoch = 0;
    IoThread* io = nullptr;
};

// Two connected sockets, closed at the end of the scope.
struct SocketPair : NoCopy {
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0); }
    ~SocketPair() {
        close(ends[0]);
        close(ends[1]);
    }

    // Makes ends[0] readable.
    void ready() const { EXPECT_EQ(send(ends[1], "*", 1, MSG_NOSIGNAL), 1); }

    int ends[2];
};

inline void ignoreEvent(uint32_t, pelmoMsg*, void*) {}

// Adds the event to the std::vector<uint32_t> of the closure.
inline void noteEvent(uint32_t event, pelmoMsg*, void* fired) {
    static_cast<std::vector<uint32_t>*>(fired)->push_back(event);
}
