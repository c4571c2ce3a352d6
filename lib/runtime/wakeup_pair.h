// A wake-up pair: any thread, or a signal handler, wakes a thread that waits for sockets. A byte
// written to one end of a loopback connection (lib/runtime/loopback_pair.h) fires an IO event on
// the other.
//
// A pair whose connection breaks, or that a wake-up finds stuck, remakes itself; where that fails,
// its owner hears of it and tries again by wakeupPairRemake.
//
// Ownership: the creator's, until wakeupPairDestroy. The object lives on until no callback of it
// runs.
//
// Failure: kStatusNoMemory, kStatusSocketLimit where the system makes no connection, and what
// pelmoEvent_CreateIO answers.
//
// Threads: any. onWake and onFail run on the thread that dispatches the queue, with no lock held,
// and may call back into the pair. Wake-ups aren't counted: a call of onWake says that something is
// to be looked at.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

struct WakeupPair;
using WakeupFunction = void (*)(void* closure);

// `onWake` and `onFail` may be null.
[[nodiscard]] pelmoStatus wakeupPairCreate(WakeupPair** out,
                                           uint32_t queueId,
                                           WakeupFunction onWake,
                                           WakeupFunction onFail,
                                           void* closure);

// Takes no lock and touches only lock-free atomics: for signal handlers too. errno is kept.
void wakeupPairWake(WakeupPair* pair);

// Makes what is missing of connection and event.
[[nodiscard]] pelmoStatus wakeupPairRemake(WakeupPair* pair, uint32_t queueId);

// Closes the sockets and ends the event.
void wakeupPairDisable(WakeupPair* pair);

void wakeupPairDestroy(WakeupPair* pair);

// Has it an IO event? For an owner that polls while it has none.
[[nodiscard]] bool wakeupPairHasEvent(WakeupPair* pair);
