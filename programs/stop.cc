#include "programs/stop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "programs/steady_time.h"

namespace {

constexpr time_t kInsistSeconds = 1;

struct StopState {
    int pair[2] = {-1, -1};  // sockets, since the library waits for nothing else
    std::atomic<bool> requested = false;
    std::atomic<const StopAtOnce*> atOnce = nullptr;
    std::atomic<time_t> requestSeconds = 0;
};

constinit StopState state;

static_assert(std::atomic<time_t>::is_always_lock_free);

[[noreturn]] void endAtOnce(const StopAtOnce& end) {
    [[maybe_unused]] const ssize_t count = write(STDERR_FILENO, end.text, std::strlen(end.text));
    _exit(end.status);
}

// Only calls that a signal handler may make.
void onSignal(int signal) {
    if (const StopAtOnce* const end = state.atOnce.load()) endAtOnce(*end);
    const int savedErrno = errno;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!state.requested.exchange(true)) {
        state.requestSeconds.store(now.tv_sec);
        // The pair is empty: this doesn't block, and it can't fail.
        [[maybe_unused]] const ssize_t count = write(state.pair[1], "", 1);
    } else if (now.tv_sec > state.requestSeconds.load() + kInsistSeconds) {
        struct sigaction standard = {};
        standard.sa_handler = SIG_DFL;
        sigaction(signal, &standard, nullptr);
        raise(signal);
    }
    errno = savedErrno;
}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

}  // namespace

pelmoStatus stopInstall() {
    constexpr int kKind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
    if (socketpair(AF_UNIX, kKind, 0, state.pair) != 0) return kStatusOsError;
    handle(SIGINT, onSignal);
    handle(SIGTERM, onSignal);
    struct sigaction hangUp = {};
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) handle(SIGHUP, onSignal);
    return kStatusSuccess;
}

bool stopRequested() {
    return state.requested.load(std::memory_order_relaxed);
}

int stopDescriptor() {
    return state.pair[0];
}

StopWait stopWait(int descriptor, short events, int64_t until) {
    for (;;) {
        if (stopRequested()) return StopWait::kStop;
        if (descriptor < 0 && until == 0) return StopWait::kTime;
        const int64_t left = std::max<int64_t>(until - steadyNow(), 0);
        const timespec wait{left / kSecond, left % kSecond};
        pollfd entries[] = {{state.pair[0], POLLIN, 0}, {descriptor, events, 0}};
        const int ready = ppoll(entries, 2, until == kNever ? nullptr : &wait, nullptr);
        if (ready > 0 && entries[0].revents == 0) return StopWait::kReady;
        if (ready == 0) return StopWait::kTime;
    }
}

void stopEndsAtOnce(const StopAtOnce* end) {
    state.atOnce.store(end);
    // A signal just before this is only a request, and would wait for the call.
    if (end != nullptr && stopRequested()) endAtOnce(*end);
}
