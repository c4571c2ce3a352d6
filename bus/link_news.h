// News of the connection to the daemon: one line on the standard error stream for each break and
// each return, in place of what the library logs if there is no listener.
//
//     pelmobus: lost the connection to the daemon
//     pelmobus: connected to the daemon again after 1.3 seconds
//
// The lines are written on a thread of their own, since not every command runs a pump.
//
// Threads: one, which is not a callback's.

#pragma once

#include "lib/pelmo.h"

struct LinkNews {
    uint32_t queue = kNoId;
    uint32_t dispatcher = kNoId;
    uint32_t breaks = kNoId;  // listeners
    uint32_t returns = kNoId;
};

// Of a network transport. After a failure the library's lines come as before.
[[nodiscard]] pelmoStatus linkNewsOpen(LinkNews& news, uint32_t transport);

// Writes the lines that are due, too. Once, before the library closes; for news that were never
// opened, too.
void linkNewsClose(LinkNews& news);
