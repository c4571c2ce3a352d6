// The daemon's port: listening on it and accepting, taking it over from a stand-in, and handing it
// over to a daemon that asks for it (pmd/stand_in.h).
//
// Without descriptors for more clients it stops accepting until some are free. After a hand-over
// this daemon's clients stay for a second, so that the other one listens when they come again.
//
// Threads: portOpen, portOffer and portClose on one thread, without `daemonLock`. Accepting and
// handing over run on threads of the library, and take the lock.
//
// Units: seconds by the steady clock.

#pragma once

#include <string>

#include "lib/base/annotate.h"
#include "pmd/client.h"
#include "pmd/options.h"

struct PortOps {
    void (*accepted)(Socket* socket);  // takes it over; called under `daemonLock`
    void (*needsTick)();               // portNeedsTick has become true; likewise
};

// Listens. A permanent daemon takes the port over if a stand-in has it. On failure `error` is one
// line.
[[nodiscard]] bool portOpen(const PmdOptions& options, const PortOps& ops, std::string& error);

// Logs the address, and offers the port to others unless the daemon is permanent.
void portOffer(const PmdOptions& options);

// No socket is accepted from here on.
void portClose();

// Does something wait for portTick?
[[nodiscard]] bool portNeedsTick() PELMO_REQUIRES(daemonLock);

// Accepts again after a pause. Called a few times per second while portNeedsTick.
void portTick(double now) PELMO_REQUIRES(daemonLock);

// The next tick accepts again: a client has given its descriptor back.
void portDescriptorsAreBack(double now) PELMO_REQUIRES(daemonLock);

[[nodiscard]] bool portWasHandedOver() PELMO_REQUIRES(daemonLock);

// True once, when the clients have had their time after a hand-over.
[[nodiscard]] bool portHandOverEnds(double now) PELMO_REQUIRES(daemonLock);
