// IO events: sockets that an IO thread watches, and the events that they fire.
//
// Failure: kStatusInvalidIoSource for what isn't a socket, or a socket and condition that the set
// has already; kStatusNotInitialized while the event manager doesn't run;
// kStatusInvalidIoCondition; kStatusSocketLimit where the set can't grow; kStatusNoMemory;
// kStatusInvalidEvent for an event that isn't registered.
//
// Threads: any, with no event's lock held.

#pragma once

#include "lib/base/status.h"

struct Event;

// With the set of the event's queue if that is an IO queue, else with that of the first IO thread,
// which takes it up at once.
[[nodiscard]] pelmoStatus Event_RegisterIO(Event* event);

// On return no wait has the socket in it: its owner may close it. From an IO thread's own callback
// there is none to wait for.
pelmoStatus Event_UnregisterIO(Event* event);
