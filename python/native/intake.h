// Where messages wait for a Python program: a queue of the library's, and an eventfd that is
// readable when there is something to take. The library's threads put messages in and never enter
// Python; they are taken out by the thread that wants them.
//
//     for (;;) {
//         count = intakeTake(intake, messages);
//         if (count != 0 || intake->closed) return;
//         poll(intake->wakeFd)
//     }
//
// The descriptor becomes readable once for all that comes until the next take, so that a burst
// costs one write. A take that leaves something makes it readable again, for other threads that
// wait.
//
// Ownership: made by intakeOpen and freed by intakeFree, which no other call may be inside of.
// Messages that are taken are the caller's to destroy.
//
// Threads: with the interpreter's lock, which is held throughout: nothing here waits. The
// descriptor may be polled without.

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "lib/pelmo.h"

struct Intake {
    uint32_t queue = kNoId;
    int wakeFd = -1;
    bool closed = false;
    std::atomic<bool> signalled{false};
    std::atomic<uint64_t> posted{0};
    uint64_t taken = 0;
    uint64_t dropped = 0;
    std::vector<uint32_t> listeners;
};

// A dispatch may bring as many again as a take wants at least.
constexpr uint32_t kTakeAtLeast = kMostBatchMessages;
using TakenMessages = std::array<pelmoMsg*, 2 * size_t{kTakeAtLeast}>;

// A limit of 0 means none. At the limit a sixteenth of the waiting messages goes at once, the
// oldest or the newest. kStatusOsError where no descriptor can be had; the queue's statuses. A
// failed open leaves nothing.
[[nodiscard]] pelmoStatus intakeOpen(Intake* intake, uint32_t limit, bool dropOldest);

// Statuses as of pelmoEvent_CreateVectorListener.
[[nodiscard]] pelmoStatus intakeListen(Intake* intake, uint32_t transport, const char* subject);

// Returns how many messages were taken, and leaves at most a few when there are very many.
[[nodiscard]] uint32_t intakeTake(Intake* intake, TakenMessages& messages);

// Makes the descriptor unreadable until something comes after the next take.
void intakeQuiet(Intake* intake);

// How many messages the limit has dropped so far. One that is being posted just now may be missing.
[[nodiscard]] uint64_t intakeDropped(Intake* intake);

// Nothing comes any more, what waits is dropped, and the descriptor is readable for good.
void intakeClose(Intake* intake);

// Closes it too, unless `isLost`: then the library isn't called.
void intakeFree(Intake* intake, bool isLost);
