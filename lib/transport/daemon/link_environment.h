// What a link to a daemon gets from the system, as one table: the clock, random numbers, timers,
// waits, names, and the start of a daemon. A test puts its own functions there while no link
// exists.
//
// Threads: the functions are called on any thread.

#pragma once

#include <cstdint>

#include "lib/base/status.h"
#include "lib/runtime/callbacks.h"
#include "lib/transport/daemon/specification.h"

struct Cond;
struct Lock;

struct LinkEnvironment {
    double (*now)();                     // seconds, steady
    uint32_t (*random)(uint32_t below);  // from 0

    pelmoStatus (*createTimer)(
        uint32_t* out, uint32_t queue, pelmoEventCallback callback, double seconds, void* closure);
    pelmoStatus (*destroyTimer)(uint32_t timer, pelmoEventCompletion completion);

    // As Cond_TimedWait.
    pelmoStatus (*wait)(Cond* cond, Lock* lock, double seconds);

    bool (*launch)(const char* specification);
    NameResolver names;

    // How long a daemon may take to accept the connection, and then for all that comes before the
    // session; how long one that was started may take until it listens.
    double connectSeconds;
    double answerSeconds;
    double startSeconds;
};

extern constinit LinkEnvironment linkEnvironment;
