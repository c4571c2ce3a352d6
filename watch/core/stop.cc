#include "watch/core/stop.h"

#include <sys/eventfd.h>

#include <atomic>

#include "lib/base/clock.h"
#include "lib/base/cond.h"
#include "lib/base/lock.h"
#include "lib/base/log.h"
#include "trace/run/run_end.h"
#include "trace/run/stop_wait.h"
#include "trace/settings.h"
#include "watch/capture/source.h"

namespace {

// How long the end may take in all, and how long of that the log waits for its reader.
constexpr double kEndSeconds = 0.7;
constexpr double kLogEndSeconds = 0.2;

struct Stop {
    Lock lock = PELMO_LOCK_READY(LockRank::kLeaf);
    Cond event = {};  // signalled when the end is asked for; made once, never destroyed

    int descriptor = -1;  // an event; constant from the arming on

    std::atomic<bool> asked = false;
    std::atomic<bool> byProgram = false;  // the program asked before any signal
    std::atomic<bool> sourceRead = false;
};

constinit Stop stop;

// A saved capture that a signal cuts off isn't shown whole, wherever the end is met.
void onStop() {
    if (!traceSettings.liveCapture && !stop.byProgram && !stop.sourceRead) endMarkFailed();
    endLimitStart(kEndSeconds);
    logBoundWaits(kLogEndSeconds);
    {
        const LockGuard guard(stop.lock);
        stop.asked = true;
        Cond_Broadcast(&stop.event);
    }
    (void)eventfd_write(stop.descriptor, 1);
    if (!traceSettings.liveCapture) sourceStop();
}

}  // namespace

pelmoStatus stopArm() {
    const pelmoStatus status = Cond_Init(&stop.event);
    stop.descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (stop.descriptor < 0) return kStatusOsError;
    return status == kStatusSuccess ? stopWaitInit(onStop) : status;
}

void stopAsk() {
    if (!stop.asked) stop.byProgram = true;
    stopWaitAsk();
}

void stopSourceRead() {
    stop.sourceRead = true;
}

bool stopIsAsked() {
    return stop.asked;
}

int stopDescriptor() {
    return stop.descriptor;
}

bool stopIsBySignal() {
    return stop.asked && !stop.byProgram;
}

bool stopSleep(double seconds) {
    const double end = clockSteadySeconds() + seconds;
    const LockGuard guard(stop.lock);
    double left = seconds;
    while (!stop.asked && left > 0) {
        (void)Cond_TimedWait(&stop.event, &stop.lock, left);
        left = end - clockSteadySeconds();
    }
    return !stop.asked;
}

void stopAwait() {
    if (!stopWaitRun()) endMarkFailed();
}

void stopDisarm() {
    stopWaitCleanup();
    stopWaitRelease();
}
