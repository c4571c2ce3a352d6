// Threads that may not wait for room: what they send is queued all the same. They are the event
// manager's own, which make the room, and those with a mark: for handlers of the library on other
// threads, and for few and small messages of a thread that holds a lock that such a handler needs.
// Marks nest.
//
// Threads: each has its own marks.

#pragma once

#include <cstdint>

inline thread_local uint32_t noWaitMarks = 0;

struct NoWait {
    NoWait() { ++noWaitMarks; }
    ~NoWait() { --noWaitMarks; }
    NoWait(const NoWait&) = delete;
    NoWait& operator=(const NoWait&) = delete;
};

// May the calling thread wait until there is room to send? False once the library is closed.
[[nodiscard]] bool threadMayWait();
