#include "trace/run/stop_wait.h"

#include <sched.h>

#include <atomic>
#include <csignal>
#include <utility>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/wakeup_pair.h"

namespace {

constexpr double kRestartSeconds = 1.0;
constexpr double kLookSeconds = 1.0;
constexpr int kStopSignals[] = {SIGINT, SIGTERM};

struct StopWait {
    Lock lock = PELMO_LOCK_READY(LockRank::kStop);
    Cond event = {};  // signalled for the waiter
    bool eventMade = false;

    uint32_t restartTimer PELMO_GUARDED_BY(lock) = kNoId;
    StopCallback callback PELMO_GUARDED_BY(lock) = nullptr;

    // Written under the lock, read by the signal handler, which may interrupt its holder. The pair
    // is there while the wait is armed; a clean-up that has ended that waits for handlers that may
    // have seen it, hence the total order of armed and handlersInside.
    std::atomic<bool> armed = false;
    std::atomic<bool> requested = false;
    std::atomic<WakeupPair*> pair = nullptr;

    // Written by the signal handler.
    std::atomic<bool> signalSeen = false;
    std::atomic<int> handlersInside = 0;
};

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
              std::atomic<WakeupPair*>::is_always_lock_free);

constinit StopWait stop;

void onSignal(int) {
    stop.handlersInside.fetch_add(1);
    if (stop.armed.load() && !stop.requested.load()) {
        stop.signalSeen.store(true);
        wakeupPairWake(stop.pair.load());
    }
    stop.handlersInside.fetch_sub(1);
}

void setHandler(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int number : kStopSignals)
        sigaction(number, &action, nullptr);
}

// What is to be called once the lock is free; null where there is nothing to decide.
StopCallback decideLocked() PELMO_REQUIRES(stop.lock) {
    if (!stop.armed || stop.requested || !stop.signalSeen) return nullptr;
    stop.requested = true;
    Cond_Signal(&stop.event);
    return stop.callback;
}

void onStopWake(void*) {
    StopCallback callback = nullptr;
    {
        const LockGuard guard(stop.lock);
        callback = decideLocked();
    }
    if (callback != nullptr) callback();
}

void endRestartTimerLocked() PELMO_REQUIRES(stop.lock) {
    const uint32_t timer = std::exchange(stop.restartTimer, kNoId);
    if (timer != kNoId) pelmoEvent_DestroyEx(timer, nullptr);
}

// A second without a working pair is over.
StopCallback restartLocked() PELMO_REQUIRES(stop.lock) {
    if (!stop.armed || stop.requested) return nullptr;
    if (stop.signalSeen) return decideLocked();
    if (wakeupPairRemake(stop.pair, kFirstIoQueueId) == kStatusSuccess) endRestartTimerLocked();
    return nullptr;
}

void onRestartTimer(uint32_t, pelmoMsg*, void*) {
    StopCallback callback = nullptr;
    {
        const LockGuard guard(stop.lock);
        callback = restartLocked();
    }
    if (callback != nullptr) callback();
}

bool startRestartTimer() {
    const LockGuard guard(stop.lock);
    if (!stop.armed || stop.restartTimer != kNoId) return true;
    const pelmoStatus status = pelmoEvent_CreateTimer(&stop.restartTimer, kTimerQueueId,
                                                      onRestartTimer, kRestartSeconds, nullptr);
    if (status == kStatusSuccess) return true;
    logPrint("unable to create sigterm restart timer: %s.", pelmoStatus_GetText(status));
    return false;
}

void onStopPairFailed(void*) {
    if (!startRestartTimer()) stopWaitCleanup();
}

}  // namespace

pelmoStatus stopWaitInit(StopCallback callback) {
    const LockGuard guard(stop.lock);
    if (stop.armed) return kStatusNotPermitted;
    // Stays for good: a waiter may still be leaving it.
    if (!stop.eventMade && Cond_Init(&stop.event) != kStatusSuccess) return kStatusNoMemory;
    stop.eventMade = true;

    WakeupPair* pair = nullptr;
    const pelmoStatus status =
        wakeupPairCreate(&pair, kFirstIoQueueId, onStopWake, onStopPairFailed, nullptr);
    if (status != kStatusSuccess) return status;
    stop.callback = callback;
    stop.requested = false;
    stop.signalSeen = false;
    stop.pair = pair;
    stop.armed = true;
    setHandler(onSignal);
    return kStatusSuccess;
}

// While the loopback interface is down no byte gets through a pair, and nothing tells: the signal
// itself is looked at now and then.
void stopWaitRun() {
    StopCallback callback = nullptr;
    {
        const LockGuard guard(stop.lock);
        while (stop.armed && !stop.requested) {
            const pelmoStatus status = Cond_TimedWait(&stop.event, &stop.lock, kLookSeconds);
            if (status == kStatusTimeout) callback = decideLocked();
        }
    }
    if (callback != nullptr) callback();
}

void stopWaitCleanup() {
    const LockGuard guard(stop.lock);
    if (!stop.armed) return;
    stop.armed = false;
    Cond_Signal(&stop.event);
    while (stop.handlersInside != 0)
        sched_yield();
    wakeupPairDestroy(stop.pair.exchange(nullptr));
    endRestartTimerLocked();
}

void stopWaitRelease() {
    setHandler(SIG_DFL);
}
