#include "lib/runtime/event_manager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/base/thread.h"
#include "lib/runtime/dispatch_internal.h"
#include "lib/runtime/io_events.h"
#include "lib/runtime/queue_internal.h"
#include "lib/runtime/queue_wake.h"
#include "lib/runtime/timers.h"
#include "lib/runtime/wakeup_pair.h"

namespace {

constexpr size_t kQueueNameBytes = 64;

// Used only with the library lock held, as starts and stops are.
constinit Thread* timerThread = nullptr;

constinit thread_local bool isOwnThread = false;

void dispatchAll(Queue* queue) {
    while (Queue_Dispatch(queue, 0.0, DispatchBatch::kMixedEvents) == kStatusSuccess) {
    }
}

// A thread's argument is its epoch, so that a thread that starts to run late notices that it was
// stopped.
void runTimers(void* argument) {
    isOwnThread = true;
    const auto epoch = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
    Held<Queue> queue;
    if (queue.find(kTimerQueueId) != kStatusSuccess) return;
    while (evmIsAt(epoch) && !Id_IsInvalid(&queue->header)) {
        dispatchAll(queue.get());
        double now;
        if (!timersAwait(epoch, &now)) return;
        (void)timersFire(epoch, now);
    }
}

// The record exists while the epoch lasts: a stop waits for this thread's end unless it runs on
// this very thread. So the pair, whose lock comes before evmLock, can be used without evmLock.
bool hasWakeup(const IoThread* own) {
    return wakeupPairHasEvent(own->pair) ||
           wakeupPairRemake(own->pair, own->queueId) == kStatusSuccess;
}

// The record exists when the thread starts: an earlier stop waits for the thread's end.
void runIo(void* argument) {
    isOwnThread = true;
    auto* const own = static_cast<IoThread*>(argument);
    const uint32_t epoch = own->epoch;
    Held<Queue> queue;
    if (queue.find(own->queueId) != kStatusSuccess) return;
    while (evmIsAt(epoch) && !Id_IsInvalid(&queue->header)) {
        dispatchAll(queue.get());
        if (!evmIsAt(epoch)) return;
        // Between the dispatch, which takes all wakes off the pair, and the next wait: before the
        // dispatch, one that came in between would be taken off and not served.
        wakesServe();
        if (!ioThreadPass(own, hasWakeup(own))) return;
    }
}

pelmoStatus startTimers() {
    LockGuard guard(evmLock);
    const uint32_t epoch = evmEpoch.fetch_add(1, std::memory_order_release) + 1;
    pelmoStatus status = timersOpenLocked();
    if (status != kStatusSuccess) return status;
    status = Queue_Create(nullptr, kTimerQueueId, "Event Manager Timer Queue", false, false);
    if (status != kStatusSuccess) return status;
    return Thread_Create(&timerThread, runTimers, reinterpret_cast<void*>(uintptr_t{epoch}));
}

pelmoStatus createIoQueue(uint32_t number) {
    char name[kQueueNameBytes];
    std::snprintf(name, sizeof(name), "PELMO IO Queue %u", number);
    char* const owned = strdup(name);
    if (owned == nullptr) return kStatusNoMemory;
    const uint32_t id = kFirstIoQueueId + number - 1;
    const pelmoStatus status = Queue_Create(nullptr, id, owned, true, false);
    if (status != kStatusSuccess) std::free(owned);
    return status;
}

// Thread numbers count from 1. `out` gets the record once it is in the table, on failure too.
pelmoStatus startIoThread(uint32_t number, IoThread** out) {
    pelmoStatus status = createIoQueue(number);
    if (status != kStatusSuccess) return status;
    IoThread* io;
    {
        LockGuard guard(evmLock);
        status = ioThreadAddLocked(kFirstIoQueueId + number - 1, &io);
    }
    if (status != kStatusSuccess) return status;
    *out = io;
    // A pair's lock comes before evmLock, so evmLock isn't held here. No other thread uses the
    // record's pair and thread yet.
    WakeupPair* pair;
    status = wakeupPairCreate(&pair, io->queueId, nullptr, nullptr, nullptr);
    if (status != kStatusSuccess) return status;
    LockGuard guard(evmLock);
    io->pair = pair;
    io->wake = wakeupPairWake;
    if (number == 1) wakesOpen(pair);
    return Thread_Create(&io->thread, runIo, io);
}

// Removes what a failed start left: a queue and a poll set without a thread would look like working
// ones.
void dropIoThread(uint32_t number, IoThread* io) {
    (void)pelmoQueue_DestroyEx(kFirstIoQueueId + number - 1, nullptr, nullptr);
    if (io == nullptr) return;
    if (number == 1) wakesClose();
    if (io->pair != nullptr) wakeupPairDestroy(io->pair);
    LockGuard guard(evmLock);
    ioThreadDropLastLocked();
}

// If it is the calling thread it isn't joined and ends by itself.
void endThread(Thread* thread) {
    if (thread == nullptr) return;
    if (!Thread_IsCurrent(thread)) Thread_Join(thread);
    Thread_Destroy(thread);
}

IoThread* ioThreadAt(uint32_t place) {
    LockGuard guard(evmLock);
    return ioThreadAtLocked(place);
}

}  // namespace

pelmoStatus EventManager_Start() {
    const pelmoStatus status = startTimers();
    if (status != kStatusSuccess) EventManager_Stop();
    return status;
}

pelmoStatus EventManager_StartIo(uint32_t count) {
    if (count < 1 || count > kMostIoQueues) return kStatusInvalidArgument;
    for (uint32_t number = 1; number <= count; ++number) {
        IoThread* io = nullptr;
        const pelmoStatus status = startIoThread(number, &io);
        if (status == kStatusSuccess) continue;
        dropIoThread(number, io);
        return status;
    }
    return kStatusSuccess;
}

bool EventManager_IsOwnThread() {
    return isOwnThread;
}

void EventManager_Stop() {
    {
        LockGuard guard(evmLock);
        if (!evmRuns()) return;
        evmEpoch.fetch_add(1, std::memory_order_release);
        timersWakeLocked();
        for (uint32_t place = 0; IoThread* const io = ioThreadAtLocked(place); ++place) {
            if (io->pair != nullptr) wakeupPairWake(io->pair);
        }
    }
    // Only a stop changes the table, and this is the only stop.
    (void)pelmoQueue_DestroyEx(kTimerQueueId, nullptr, nullptr);
    for (uint32_t place = 0; IoThread* const io = ioThreadAt(place); ++place) {
        (void)pelmoQueue_DestroyEx(io->queueId, nullptr, nullptr);
    }
    for (uint32_t place = 0; IoThread* const io = ioThreadAt(place); ++place) {
        endThread(io->thread);
    }
    endThread(timerThread);
    timerThread = nullptr;
    wakesClose();
    for (uint32_t place = 0; IoThread* const io = ioThreadAt(place); ++place) {
        if (io->pair != nullptr) wakeupPairDestroy(io->pair);
    }
    LockGuard guard(evmLock);
    timersCloseLocked();
    ioThreadsClearLocked();
}
