// The armed timers: one list, soonest last, guarded by the event manager's lock, which stands here
// as its innermost module.
//
// Timers run at a fixed rate: the next expiry counts from the one before, not from the firing or
// the callback. A timer at most 100 intervals behind catches up, one firing at each pass; one
// further behind drops what it missed and counts from now. A timer is out of the list from its
// firing to its dispatch, so that it never has more than one entry on its queue.
//
// Units: seconds since 1970 by the steady clock (lib/base/clock.h): a wall clock that is set while
// timers run neither holds them up nor makes them flood.
//
// Ownership: the list holds one reference to each timer in it.
//
// Failure: kStatusNotInitialized while the event manager doesn't run, kStatusNoMemory.
//
// Threads: any, with no event's lock held.

#pragma once

#include <cstdint>
#include <span>

#include "lib/base/cond.h"
#include "lib/base/status.h"

struct Event;

extern Lock evmLock;  // guards the timers and the socket sets

// Due one interval from now.
[[nodiscard]] pelmoStatus Timer_Arm(Event* event);

// Due when its nextExpiry says; what a dispatch does.
[[nodiscard]] pelmoStatus Timer_Insert(Event* event);

// kStatusInvalidArgument where it isn't in the list.
pelmoStatus Timer_Remove(Event* event);

// A new interval, counted from now. A timer that has fired takes it up when it is dispatched.
pelmoStatus Timer_Reset(Event* event, double intervalSeconds);
