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
constexpr int kPassWithoutWakeMilliseconds = 100;  // a short poll stands in for the wake-up
constexpr int kPauseMilliseconds = 1'000;

// The IO threads' records; null while there is none.
constinit Dpa* ioThreads PELMO_GUARDED_BY(evmLock) = nullptr;

// Null where that thread doesn't run.
IoThread* threadOfLocked(const Event* event) PELMO_REQUIRES(evmLock) {
    if (!idIsIoQueue(event->queueId)) return ioThreadAtLocked(0);
    for (uint32_t place = 0; IoThread* const io = ioThreadAtLocked(place); ++place) {
        if (io->queueId == event->queueId) return io;
    }
    return nullptr;
}

// Once for each event: a source that has died isn't taken up again.
bool sourceIsValidLocked(Event* event) PELMO_REQUIRES(evmLock) {
    if (!event->io.sourceChecked) {
        event->io.sourceValid = sourceIsSocket(event->io.source);
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

// How far the posts of a pass have come.
struct PassWalk {
    uint32_t condition = 0;
    uint32_t from = 0;
};

// Events with a reference each, and how many there are. They are posted with no lock held, since a
// post runs its queue's hook, which may do anything.
constexpr uint32_t kBatchEvents = 32;
using Batch = Event* [kBatchEvents];

// On an IO queue an event's callback has run by the next pass; elsewhere the event leaves the set,
// and its dispatch brings it back.
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

// Dead sources leave the set and fire once more, so that their owners hear of it.
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

// An event that couldn't be posted for want of memory is still ready in the next pass. A dead one
// doesn't get back into the set.
void postAndRelease(Event* event) {
    const pelmoStatus status = Event_Post(event);
    if (status == kStatusNoMemory && !idIsIoQueue(event->queueId)) (void)Event_RegisterIO(event);
    Id_Release(&event->header, false);
}

void tellError(int error) {
    const int code = socketErrorFromErrno(error);
    std::fprintf(stderr, "select error: %d (%s)\n", code, socketErrorText(code));
}

// Under evmLock: what the poll is to look at. False once the epoch has passed.
bool prepare(IoThread* own) {
    LockGuard guard(evmLock);
    if (!evmIsAt(own->epoch)) return false;
    pollSetPrepare(&own->sockets);
    own->inPoll.store(true, std::memory_order_relaxed);
    return true;
}

// Returns the error number, 0 for none. With nothing to watch there is no pair either, and so
// nobody who could end the wait. Without evmLock: of the set it uses only what stands still between
// two polls.
int pollOnce(IoThread* own, int timeoutMilliseconds) PELMO_UNCHECKED_LOCKING {
    const PollSet& set = own->sockets;
    if (set.leavesOut) timeoutMilliseconds = std::min(timeoutMilliseconds, kPauseMilliseconds);
    if (set.passCount == 0) timeoutMilliseconds = kPauseMilliseconds;
    int error = poll(set.pass, set.passCount, timeoutMilliseconds) < 0 ? errno : 0;
    // The results of an interrupted or failed poll are those of its entries before it: none.
    if (error == 0 && pollSetMetClosed(&set)) error = EBADF;
    own->inPoll.store(false, std::memory_order_release);
    own->inPoll.notify_all();
    return error;
}

// Posts what came of the poll. A hook may have ended the event manager meanwhile: the epoch is
// looked at before the record is.
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
    // As with timers: a destroy would miss an event that is entered behind its back.
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

    // The poll's array is left alone until the poll is over. evmLock stays held meanwhile: the
    // thread leaves its poll without it, and nobody can stop the event manager.
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
    // What isn't a closed descriptor is the system's own trouble: it is given time to pass.
    if (error != 0 && error != EINTR && error != EBADF) giveItTime();
    return true;
}
