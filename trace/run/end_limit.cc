#include "trace/run/end_limit.h"

#include <sys/time.h>
#include <unistd.h>

#include <csignal>

#include "trace/run/end_status.h"

namespace {

void onAlarm(int) {
    _exit(endStatus());
}

}  // namespace

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
