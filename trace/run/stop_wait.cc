#include "trace/run/stop_wait.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <utility>

#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "lib/pelmo.h"
#include "lib/runtime/fixed_ids_internal.h"
#include "lib/runtime/wakeup_pair.h"

namespace {

constexpr double kRestartSeconds = 1.0;
constexpr double kLookSeconds = 0.25;
constexpr int64_t kPatienceMilliseconds = 1000;
constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

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
    std::atomic<int64_t> firstMilliseconds = 0;  // when the first came; 0: none has
    std::atomic<int> handlersInside = 0;
};

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
              std::atomic<int64_t>::is_always_lock_free &&
              std::atomic<WakeupPair*>::is_always_lock_free);

constinit StopWait stop;

int64_t monotonicMilliseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Has a stop been asked for long enough ago that the process should have ended? Some senders repeat
// their signal at once and mean only the one stop.
bool stopIsOverdue() {
    const int64_t now = monotonicMilliseconds();
    int64_t first = 0;
    if (stop.firstMilliseconds.compare_exchange_strong(first, now)) return false;
    return now - first >= kPatienceMilliseconds;
}

void onSignal(int number) {
    stop.handlersInside.fetch_add(1);
    const int keptErrno = errno;
    if (stop.armed.load() && !stop.requested.load()) {
        stop.signalSeen.store(true);
        wakeupPairWake(stop.pair.load());
    }
    if (stopIsOverdue()) {
        signal(number, SIG_DFL);
        raise(number);  // takes effect when this handler returns
    }
    errno = keptErrno;
    stop.handlersInside.fetch_sub(1);
}

// A hang-up that was ignored at the start (nohup) stays so.
bool isLeftAlone(int number) {
    struct sigaction present = {};
    return number == SIGHUP && sigaction(number, nullptr, &present) == 0 &&
           present.sa_handler == SIG_IGN;
}

void setHandler(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int number : kStopSignals) {
        if (!isLeftAlone(number)) sigaction(number, &action, nullptr);
    }
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

// Runs after each second without a working pair.
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
    stop.requested = false;
    // The condition is never destroyed: a waiter may still be on its way out of it.
    if (!stop.eventMade && Cond_Init(&stop.event) != kStatusSuccess) return kStatusNoMemory;
    stop.eventMade = true;

    WakeupPair* pair = nullptr;
    const pelmoStatus status =
        wakeupPairCreate(&pair, kFirstIoQueueId, onStopWake, onStopPairFailed, nullptr);
    if (status != kStatusSuccess) return status;
    stop.callback = callback;
    stop.signalSeen = false;
    stop.firstMilliseconds = 0;
    stop.pair = pair;
    stop.armed = true;
    setHandler(onSignal);
    return kStatusSuccess;
}

void stopWaitAsk() {
    StopCallback callback = nullptr;
    {
        const LockGuard guard(stop.lock);
        if (stop.armed) stop.signalSeen = true;
        callback = decideLocked();
    }
    if (callback != nullptr) callback();
}

// The wait also looks by itself whether a signal came: the pair may be stuck, or its thread may be
// waiting for a reader of the log.
bool stopWaitRun() {
    StopCallback callback = nullptr;
    bool requested = false;
    {
        const LockGuard guard(stop.lock);
        while (stop.armed && !stop.requested) {
            const pelmoStatus status = Cond_TimedWait(&stop.event, &stop.lock, kLookSeconds);
            if (status == kStatusTimeout) callback = decideLocked();
        }
        requested = stop.requested;
    }
    if (callback != nullptr) callback();
    return requested;
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
