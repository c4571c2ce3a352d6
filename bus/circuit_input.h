// Lines of the standard input as messages on a circuit, on a thread of its own, so that messages
// are taken in meanwhile. Each is a message on "LINE" with the string field "line".
//
// Its end ends the thread; that waits for a send that a daemon holds up.
//
// Threads: the calls are for one thread.

#pragma once

#include <atomic>
#include <thread>

#include "bus/settings.h"

class CircuitInput {
  public:
    // Once the thread has nothing more to do, it wakes the thread that dispatches the queue by a
    // message within the process on `wakeSubject`, which outlives it.
    explicit CircuitInput(const char* wakeSubject) : wakeSubject_(wakeSubject) {}
    ~CircuitInput();
    CircuitInput(const CircuitInput&) = delete;
    CircuitInput& operator=(const CircuitInput&) = delete;

    // Failures are reported.
    [[nodiscard]] bool start(const BusSettings& settings, uint32_t circuit, int64_t graceTime);

    // Has all been sent? kExitFailed if something couldn't be read or sent, which was reported.
    [[nodiscard]] bool ended(ExitStatus* out) const;

    // Ends the thread. True where it leaves a line unsent that is there already.
    [[nodiscard]] bool stopLeavesSome();

  private:
    void run(const BusSettings& settings, uint32_t circuit, int64_t graceTime);
    void stop();
    [[nodiscard]] bool awaitLine() const;

    const char* wakeSubject_;
    int stop_ = -1;  // an event; readable from the destructor on
    std::atomic<bool> isStopped_ = false;
    std::atomic<bool> hasEnded_ = false;
    std::atomic<bool> leavesSome_ = false;
    std::atomic<ExitStatus> status_ = kExitDone;
    std::thread thread_;
};
