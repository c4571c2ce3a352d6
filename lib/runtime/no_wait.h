// Threads that may not wait for room: while a mark exists, what its thread sends is queued all the
// same. For handlers that have to make the room themselves, and for few and small messages of
// whoever holds a lock that such a handler needs. Marks nest.
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

[[nodiscard]] inline bool threadMayWait() {
    return noWaitMarks == 0;
}
