#include "python/native/library.h"

#include <cxxabi.h>
#include <unistd.h>

#include <csignal>

#include "lib/pelmo.h"
#include "python/native/errors.h"

namespace {

enum class State { kClosed, kOpen, kEnded, kLost };
State state;

// Python's handlers belong on its main thread, whose waits they interrupt: the library's threads,
// which the open starts, inherit a mask that keeps signals off them.
pelmoStatus openWithoutSignals() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pelmoStatus status = pelmo_Open();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return status;
}

}  // namespace

void libraryNeed() {
    if (state == State::kOpen) [[likely]]
        return;
    if (state == State::kLost) {
        raise(PyExc_RuntimeError,
              "the process was forked while pelmo was in use; use it in the child from the start");
    }
    if (state == State::kEnded) raise(PyExc_RuntimeError, "the interpreter is ending");
    check(openWithoutSignals(), "opening the library");
    state = State::kOpen;
}

bool libraryIsLost() {
    return state == State::kLost;
}

void libraryEnd() {
    if (state == State::kLost) return;
    const bool wasOpen = state == State::kOpen;
    state = State::kEnded;
    if (!wasOpen) return;
    PyThreadState* const thread = PyEval_SaveThread();
    (void)pelmo_Close();
    libraryEnterPython(thread);
}

void libraryEnterPython(PyThreadState* thread) try {
    PyEval_RestoreThread(thread);
} catch (abi::__forced_unwind&) {
    for (;;) {
        pause();
    }
}

void libraryForked() {
    if (state == State::kOpen) state = State::kLost;
}
