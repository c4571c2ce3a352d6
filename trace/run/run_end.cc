#include "trace/run/run_end.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

namespace {

// The threads that set it are joined, or abandoned on purpose, before it is read. A signal
// handler may read it.
std::atomic<bool> failed = false;

static_assert(std::atomic<bool>::is_always_lock_free);

void onAlarm(int) {
    _exit(endStatus());
}

}  // namespace

void endMarkFailed() {
    failed.store(true, std::memory_order_relaxed);
}

int endStatus() {
    return failed.load(std::memory_order_relaxed) ? EXIT_FAILURE : EXIT_SUCCESS;
}

// A signal comes through whatever lock is held, and needs no memory for a thread.
void endLimitStart(double seconds) {
    struct sigaction action = {};
    action.sa_handler = onAlarm;
    sigaction(SIGALRM, &action, nullptr);
    sigset_t alarm;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);

    constexpr double kMicroseconds = 1e6;
    itimerval timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    timer.it_value.tv_usec = static_cast<suseconds_t>(
        (seconds - static_cast<double>(timer.it_value.tv_sec)) * kMicroseconds);
    setitimer(ITIMER_REAL, &timer, nullptr);
}
