#include "lib/runtime/wakeup_pair.h"

#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/runtime/event_internal.h"
#include "lib/runtime/loopback_pair.h"
#include "lib/runtime/socket_error.h"

// A wake-up must never write to another file's descriptor. It may come from a signal handler at any
// moment, also between two instructions of the thread that closes the sockets, and the number of a
// closed descriptor may be reused at once. So a wake-up counts itself in `wakers` and only then
// reads the handle; a close first clears the handle and only then waits until `wakers` is 0. Either
// the wake-up reads that there is no handle, or the close waits for it: never for long, as the send
// doesn't block. A handler that interrupts the closing thread has returned before that thread
// continues.

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

struct WakeupPair {
    // Constant after creation.
    WakeupFunction onWake;
    WakeupFunction onFail;
    void* closure;

    Lock lock;

    bool valid PELMO_GUARDED_BY(lock);  // the two sockets exist

    // Written under `lock`, read without it.
    std::atomic<bool> active;  // until destroyed
    std::atomic<uint32_t> ioEvent;

    // Used by signal handlers too. All are sequentially consistent: see above.
    std::atomic<int> writeHandle;  // -1: none
    std::atomic<int> readHandle;   // valid while there is a writeHandle
    std::atomic<int> wakers;       // wake-ups under way
    std::atomic<bool> signalled;   // never cleared

    // The creator's reference, and one for each event, released when no callback of the event can
    // run any more.
    std::atomic<uint32_t> references;
};

namespace {

constexpr size_t kWakesAtOnce = 32;

void closeSocketsLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    if (!std::exchange(pair->valid, false)) return;
    const int writeHandle = pair->writeHandle.exchange(-1);
    while (pair->wakers.load() != 0)
        sched_yield();
    loopbackPairClose({pair->readHandle.exchange(-1), writeHandle});
}

// No other thread can reach the pair once its last reference is gone.
void release(WakeupPair* pair) PELMO_UNCHECKED_LOCKING {
    if (pair->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    closeSocketsLocked(pair);
    Lock_Destroy(&pair->lock);
    std::free(pair);
}

void onEventGone(uint32_t, void* pair) {
    release(static_cast<WakeupPair*>(pair));
}

// The event may be gone already, since the library's close destroys all events.
void endEvent(WakeupPair* pair, uint32_t event) {
    if (event == kNoId) return;
    if (pelmoEvent_DestroyEx(event, onEventGone) != kStatusSuccess) release(pair);
}

// The caller holds a reference of its own, so that the event's isn't the last.
void disableLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    // The event is destroyed first: then no thread polls the socket any more.
    endEvent(pair, pair->ioEvent.exchange(kNoId));
    closeSocketsLocked(pair);
}

// These errors leave a connection usable: out of memory (12), a medium's own error (124), would
// block, in progress, no buffers.
bool passes(int code) {
    static constexpr int kPassing[] = {12, 124, 10035, 10036, 10055};
    return std::ranges::find(kPassing, code) != std::end(kPassing);
}

// Reads what was written. Returns whether the connection is still usable.
bool drainLocked(const WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    char bytes[kWakesAtOnce];
    ssize_t got;
    do {
        got = recv(pair->readHandle.load(), bytes, sizeof(bytes), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0) return passes(socketErrorFromErrno(errno));
    if (got == 0) logPrint("Socket pair unexpectedly closed, creating new pair");
    return got > 0;
}

// Remakes the pair. Returns whether that failed, so that its owner must be called.
bool renewLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    uint32_t queueId;
    const bool asked = pelmoEvent_GetQueue(pair->ioEvent.load(), &queueId) == kStatusSuccess;
    disableLocked(pair);
    return !asked || wakeupPairRemake(pair, queueId) != kStatusSuccess;
}

void onPairEvent(uint32_t, pelmoMsg*, void* closure) {
    auto* const pair = static_cast<WakeupPair*>(closure);
    bool fire = false;
    bool failed = false;
    {
        LockGuard guard(pair->lock);
        if (!pair->active.load()) return;
        if (pair->valid && !drainLocked(pair)) failed = renewLocked(pair);
        fire = pair->signalled.load();
    }
    // The event's reference keeps the pair alive until this returns, whatever the callbacks do.
    if (fire && pair->onWake != nullptr) pair->onWake(pair->closure);
    if (failed && pair->active.load() && pair->onFail != nullptr) pair->onFail(pair->closure);
}

pelmoStatus makeSocketsLocked(WakeupPair* pair) PELMO_REQUIRES(pair->lock) {
    if (pair->valid) return kStatusSuccess;
    LoopbackPair sockets;
    if (!loopbackPairMake(&sockets)) return kStatusSocketLimit;
    pair->readHandle.store(sockets.readHandle);
    pair->writeHandle.store(sockets.writeHandle);
    pair->valid = true;
    return kStatusSuccess;
}

pelmoStatus makeEventLocked(WakeupPair* pair, uint32_t queueId) PELMO_REQUIRES(pair->lock) {
    if (pair->ioEvent.load() != kNoId) return kStatusSuccess;
    pair->references.fetch_add(1, std::memory_order_relaxed);
    uint32_t event;
    const pelmoStatus status =
        pelmoEvent_CreateIO(&event, queueId, onPairEvent, pair->readHandle.load(), kIoRead, pair);
    if (status != kStatusSuccess) {
        pair->references.fetch_sub(1, std::memory_order_relaxed);
        return status;
    }
    pair->ioEvent.store(event);
    return kStatusSuccess;
}

}  // namespace

pelmoStatus wakeupPairCreate(WakeupPair** out,
                             uint32_t queueId,
                             WakeupFunction onWake,
                             WakeupFunction onFail,
                             void* closure) {
    void* const block = std::calloc(1, sizeof(WakeupPair));
    if (block == nullptr) return kStatusNoMemory;
    auto* const pair = new (block) WakeupPair{};
    const pelmoStatus locked = Lock_Init(&pair->lock, LockRank::kWakeupPair);
    if (locked != kStatusSuccess) {
        std::free(pair);
        return locked;
    }
    pair->onWake = onWake;
    pair->onFail = onFail;
    pair->closure = closure;
    pair->readHandle.store(-1);
    pair->writeHandle.store(-1);
    pair->active.store(true);
    pair->references.store(1, std::memory_order_relaxed);

    const pelmoStatus status = wakeupPairRemake(pair, queueId);
    if (status != kStatusSuccess) {
        wakeupPairDestroy(pair);
        return status;
    }
    *out = pair;
    return kStatusSuccess;
}

void wakeupPairWake(WakeupPair* pair) {
    const int keptErrno = errno;
    pair->wakers.fetch_add(1);
    if (pair->active.load()) {
        pair->signalled.store(true);
        const int handle = pair->writeHandle.load();
        // When no more bytes fit, there are enough to wake the reader.
        while (handle >= 0 && send(handle, "*", 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
               errno == EINTR) {
        }
        // The network doesn't deliver the byte. The shutdown wakes the reader by the end of its
        // stream, and the reader remakes the pair.
        const int readHandle = pair->readHandle.load();
        if (handle >= 0 && loopbackPairIsStuck({readHandle, handle})) shutdown(readHandle, SHUT_RD);
    }
    pair->wakers.fetch_sub(1);
    errno = keptErrno;
}

pelmoStatus wakeupPairRemake(WakeupPair* pair, uint32_t queueId) {
    LockGuard guard(pair->lock);
    if (!pair->active.load()) return kStatusSuccess;
    const pelmoStatus status = makeSocketsLocked(pair);
    return status == kStatusSuccess ? makeEventLocked(pair, queueId) : status;
}

void wakeupPairDisable(WakeupPair* pair) {
    LockGuard guard(pair->lock);
    disableLocked(pair);
}

void wakeupPairDestroy(WakeupPair* pair) {
    uint32_t event;
    {
        LockGuard guard(pair->lock);
        if (!pair->active.exchange(false)) return;
        event = pair->ioEvent.exchange(kNoId);
    }
    // The lock must be released first, since the last reference frees it with the pair.
    endEvent(pair, event);
    release(pair);
}

bool wakeupPairHasEvent(WakeupPair* pair) {
    return pair->ioEvent.load() != kNoId;
}
