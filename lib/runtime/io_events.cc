#include "lib/runtime/io_events.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "lib/containers/dpa.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/post.h"
#include "lib/runtime/socket_error.h"

namespace {

constexpr int kPassMilliseconds = 10'000;
constexpr int kPassWithoutWakeMilliseconds = 100;  // a short poll instead of the wake-up
constexpr int kPauseMilliseconds = 1'000;

// The IO threads' records; null while there is none.
constinit Dpa* ioThreads PELMO_GUARDED_BY(evmLock) = nullptr;

// Null when that thread doesn't run.
IoThread* threadOfLocked(const Event* event) PELMO_REQUIRES(evmLock) {
    if (!idIsIoQueue(event->queueId)) return ioThreadAtLocked(0);
    for (uint32_t place = 0; IoThread* const io = ioThreadAtLocked(place); ++place) {
        if (io->queueId == event->queueId) return io;
    }
    return nullptr;
}

// The source is tested once per event: one that was found dead isn't registered again.
bool sourceIsValidLocked(Event* event) PELMO_REQUIRES(evmLock) {
    if (!event->io.sourceChecked) {
        event->io.isSocket = sourceIsSocket(event->io.source);
        event->io.sourceValid = event->io.isSocket || sourceIsPollable(event->io.source);
        event->io.sourceChecked = true;
    }
    return event->io.sourceValid;
}

void wakeLocked(const IoThread* io) PELMO_REQUIRES(evmLock) {
    if (io->pair != nullptr) io->wake(io->pair);
}

void giveItTime() {
    (void)poll(nullptr, 0, kPauseMilliseconds);
}

// The position up to which a pass has posted.
struct PassWalk {
    uint32_t condition = 0;
    uint32_t from = 0;
};

// Events that are posted together, each held by a reference. They are posted with no lock held,
// since a post runs its queue's hook, which may call the library.
constexpr uint32_t kBatchEvents = 32;
using Batch = Event* [kBatchEvents];

// On an IO queue the event's callback has run before the next pass; an event on another queue
// leaves the set, and its dispatch registers it again.
uint32_t takeReadyLocked(IoThread* own, PassWalk& walk, Batch& batch) PELMO_REQUIRES(evmLock) {
    uint32_t count = 0;
    while (count < kBatchEvents && walk.condition < kIoConditions) {
        Event* const ready = pollSetNextReady(&own->sockets, walk.condition, &walk.from);
        if (ready == nullptr) {
            walk = {.condition = walk.condition + 1};
            continue;
        }
        Id_AddRef(&ready->header);
        if (!idIsIoQueue(ready->queueId)) (void)pollSetRemove(&own->sockets, ready);
        batch[count++] = ready;
    }
    return count;
}

// Events with dead sources leave the set and fire one last time, so that their owners notice.
uint32_t takeDeadLocked(IoThread* own, Batch& batch) PELMO_REQUIRES(evmLock) {
    uint32_t count = 0;
    while (count < kBatchEvents) {
        Event* const dead = pollSetFindDead(&own->sockets);
        if (dead == nullptr) break;
        Id_AddRef(&dead->header);
        (void)pollSetRemove(&own->sockets, dead);
        batch[count++] = dead;
    }
    return count;
}

// An event that couldn't be posted because memory ran out is still ready in the next pass. An event
// with a dead source isn't registered again.
void postAndRelease(Event* event) {
    const pelmoStatus status = Event_Post(event);
    if (status == kStatusNoMemory && !idIsIoQueue(event->queueId)) (void)Event_RegisterIO(event);
    Id_Release(&event->header, false);
}

void tellError(int error) {
    const int code = socketErrorFromErrno(error);
    std::fprintf(stderr, "select error: %d (%s)\n", code, socketErrorText(code));
}

// Builds the array of the poll under evmLock. False once the epoch has ended.
bool prepare(IoThread* own) {
    LockGuard guard(evmLock);
    if (!evmIsAt(own->epoch)) return false;
    pollSetPrepare(&own->sockets);
    own->inPoll.store(true, std::memory_order_relaxed);
    return true;
}

// Returns the error number, 0 for none. A set without sockets has no wake-up pair either, so
// nothing could end the wait and it is kept short. It runs without evmLock and uses only the fields
// of the set that change between two polls and never during one.
int pollOnce(IoThread* own, int timeoutMilliseconds) PELMO_UNCHECKED_LOCKING {
    const PollSet& set = own->sockets;
    if (set.leavesOut) timeoutMilliseconds = std::min(timeoutMilliseconds, kPauseMilliseconds);
    if (set.passCount == 0) timeoutMilliseconds = kPauseMilliseconds;
    int error = poll(set.pass, set.passCount, timeoutMilliseconds) < 0 ? errno : 0;
    // An interrupted or failed poll leaves the results of its entries cleared.
    if (error == 0 && pollSetMetClosed(&set)) error = EBADF;
    own->inPoll.store(false, std::memory_order_release);
    own->inPoll.notify_all();
    return error;
}

// Posts the events that the poll found ready. A hook may stop the event manager meanwhile, so the
// epoch is tested before the record is used.
bool finish(IoThread* own, int error) {
    const uint32_t epoch = own->epoch;
    PassWalk walk;
    Batch batch;
    for (;;) {
        uint32_t count = 0;
        {
            LockGuard guard(evmLock);
            if (!evmIsAt(epoch)) return false;
            if (error == 0) count = takeReadyLocked(own, walk, batch);
            if (error == EBADF) count = takeDeadLocked(own, batch);
            if (count == 0) {
                pollSetFinish(&own->sockets);
                return true;
            }
        }
        for (uint32_t i = 0; i < count; ++i)
            postAndRelease(batch[i]);
    }
}

}  // namespace

pelmoStatus Event_RegisterIO(Event* event) {
    LockGuard guard(evmLock);
    if (!sourceIsValidLocked(event)) return kStatusInvalidIoSource;
    if (!evmRuns()) return kStatusNotInitialized;
    // A destroy that has already run would leave an event in the set that is entered now (as with
    // timers).
    if (Id_IsInvalid(&event->header)) return kStatusInvalidEvent;
    IoThread* const io = threadOfLocked(event);
    if (io == nullptr) return kStatusNotInitialized;
    if (!pollSetKnows(event->io.condition)) return kStatusInvalidIoCondition;

    const pelmoStatus status = pollSetAdd(&io->sockets, event);
    if (status != kStatusSuccess) return status;
    if (io->inPoll.load(std::memory_order_acquire)) wakeLocked(io);
    return kStatusSuccess;
}

pelmoStatus Event_UnregisterIO(Event* event) {
    LockGuard guard(evmLock);
    if (!evmRuns()) return kStatusNotInitialized;
    IoThread* const io = threadOfLocked(event);
    if (io == nullptr) return kStatusInvalidEvent;
    if (!pollSetKnows(event->io.condition)) return kStatusInvalidIoCondition;

    // Waits until the poll is over, since it works on the array. evmLock stays held meanwhile: the
    // polling thread doesn't need it to leave its poll, and no thread can stop the event manager.
    if (!pollSetHas(&io->sockets, event)) return kStatusInvalidEvent;
    if (io->inPoll.load(std::memory_order_acquire)) wakeLocked(io);
    io->inPoll.wait(true, std::memory_order_acquire);
    return pollSetRemove(&io->sockets, event);
}

pelmoStatus ioThreadAddLocked(uint32_t queueId, IoThread** out) {
    if (ioThreads == nullptr) ioThreads = dpaCreate(1);
    if (ioThreads == nullptr) return kStatusNoMemory;
    void* const block = std::calloc(1, sizeof(IoThread));
    if (block == nullptr) return kStatusNoMemory;

    auto* const io = new (block) IoThread{};
    io->queueId = queueId;
    io->epoch = evmEpoch.load(std::memory_order_relaxed);
    pelmoStatus status = pollSetInit(&io->sockets);
    if (status == kStatusSuccess && !dpaAppend(ioThreads, io)) status = kStatusNoMemory;
    if (status != kStatusSuccess) {
        pollSetFree(&io->sockets);
        std::free(io);
        return status;
    }
    *out = io;
    return kStatusSuccess;
}

IoThread* ioThreadAtLocked(uint32_t place) {
    if (ioThreads == nullptr || place >= ioThreads->count) return nullptr;
    return static_cast<IoThread*>(ioThreads->items[place]);
}

void ioThreadDropLastLocked() {
    auto* const io = static_cast<IoThread*>(ioThreads->items[--ioThreads->count]);
    pollSetFree(&io->sockets);
    std::free(io);
}

void ioThreadsClearLocked() {
    while (ioThreadAtLocked(0) != nullptr)
        ioThreadDropLastLocked();
    ioThreads = dpaDestroy(ioThreads);
}

bool ioThreadPass(IoThread* own, bool canBeWoken) {
    if (!prepare(own)) return false;
    const int error = pollOnce(own, canBeWoken ? kPassMilliseconds : kPassWithoutWakeMilliseconds);
    if (error != 0 && error != EINTR) tellError(error);
    if (!finish(own, error)) return false;
    // Any error but a closed descriptor is a failure of the system, so the thread pauses before it
    // tries again.
    if (error != 0 && error != EINTR && error != EBADF) giveItTime();
    return true;
}
