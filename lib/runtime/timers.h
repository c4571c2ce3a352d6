// The armed timers, soonest first out. Equal times go by the address of their records, the lower
// one first.
//
// Timers run at a fixed rate: the next expiry counts from the one before, not from the firing or
// the callback. A timer at most 100 intervals late catches up, one firing at each pass; a
// later one drops what it missed and counts from now. A timer isn't armed from its firing to
// its dispatch, so that it never has more than one entry on its queue.
//
// The timers are in a heap: the soonest is at hand, and arming one costs little however many there
// are.
//
// Units: seconds since 1970 by the steady clock (lib/base/clock.h): a wall clock that is set while
// timers run neither delays them nor makes them fire in bulk.
//
// Ownership: one reference to each armed timer.
//
// Failure: kStatusNotInitialized while the event manager doesn't run, kStatusInvalidEvent for a
// timer that is destroyed, kStatusNoMemory.
//
// Threads: any, with no event's lock held.

#pragma once

#include <cstdint>

#include "lib/base/annotate.h"
#include "lib/base/status.h"
#include "lib/runtime/evm_state.h"

struct Event;

// Due one interval from now.
[[nodiscard]] pelmoStatus Timer_Arm(Event* event);

// Due when its nextExpiry says; what a dispatch does.
[[nodiscard]] pelmoStatus Timer_Insert(Event* event);

// kStatusInvalidArgument if it isn't armed.
pelmoStatus Timer_Remove(Event* event);

// A new interval, counted from now. A timer that has fired takes it up when it is dispatched.
pelmoStatus Timer_Reset(Event* event, double intervalSeconds);

// For the event manager. The timers exist from open to close; closing releases them.
// kStatusNoMemory when the system gives no memory.

[[nodiscard]] pelmoStatus timersOpenLocked() PELMO_REQUIRES(evmLock);
void timersCloseLocked() PELMO_REQUIRES(evmLock);

// Ends a wait, so that its thread looks at the epoch.
void timersWakeLocked() PELMO_REQUIRES(evmLock);

// Is a thread waiting in timersAwait?
[[nodiscard]] bool timersAreAwaitedLocked() PELMO_REQUIRES(evmLock);

// Waits until the soonest timer is due, at most a minute, and gives the time to fire at: that of
// the clock before the wait, plus the time waited for if nothing cut the wait short.
// False once the epoch has passed.
[[nodiscard]] bool timersAwait(uint32_t epoch, double* outNow);

// Fires what is due, soonest first, at most 32 timers: the rest is seen by the next pass, so that
// the dispatch of the timer queue isn't held off for long. Returns how many.
uint32_t timersFire(uint32_t epoch, double now);
