// A queue, and the loop that runs what is posted to it: until enough has come, the time has, a
// signal asks for the end, or something fails. Meanwhile lines that are due leave.
//
// Callbacks of listeners run within pumpRun, on its thread, and must not throw: pumpGuard keeps
// them from it.
//
// Threads: one.

#pragma once

#include <exception>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "bus/output.h"
#include "lib/pelmo.h"

constexpr uint32_t kMostInboxBytes = 256;  // more than any subject has

struct Pump {
    uint32_t queue = kNoId;
    Output* output = nullptr;
    int stopCopy = -1;  // of the descriptor, which the library lets only one event wait for
    std::vector<uint32_t> events;
    std::set<std::string> refused;  // subjects that the daemon keeps no interest in
    bool hearsRefusals = false;
    pelmoStatus failure =
        kStatusSuccess;  // what a callback failed with, reported where it happened

    Pump() = default;
    ~Pump();
    Pump(const Pump&) = delete;
    Pump& operator=(const Pump&) = delete;
};

// Failures are reported.
[[nodiscard]] bool pumpOpen(Pump& pump, Output* output);

// Failures are reported, and so is a subject that the daemon refuses later.
[[nodiscard]] bool pumpListen(Pump& pump,
                              uint32_t transport,
                              const char* subject,
                              pelmoEventCallback callback,
                              void* closure);

// Announces "listening on SUBJECT" for each that the daemon hasn't refused, once the daemon knows
// of the listeners: what is sent from then on reaches them. A message to ourselves by the daemon
// shows it, which the daemon sends back after it has handled all that came before. One that sends
// nothing back is waited for a second.
void pumpAnnounce(Pump& pump, uint32_t transport, std::span<const char* const> subjects);

enum class PumpEnd { kDone, kTime, kStopped, kFailed };

// `done` is set by a callback; `until` is on the steady clock.
[[nodiscard]] PumpEnd pumpRun(Pump& pump, const bool& done, int64_t until);

// Runs a callback's body. An exception, which is lack of memory, becomes the pump's failure.
template <typename Body>
void pumpGuard(Pump& pump, Body body) {
    try {
        body();
    } catch (const std::exception&) {
        pump.failure = kStatusNoMemory;
    }
}
