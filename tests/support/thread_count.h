// The number of threads of the process according to the system.

#pragma once

#include <sched.h>

#include <filesystem>

inline size_t threadCount() {
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        count += task.is_directory() ? 1 : 0;
    }
    return count;
}

// Waits for the number of threads, since the system lists a thread for a moment after its end. For
// threads that can't be joined. False if the number still differs after a while.
inline bool threadsBecome(size_t expected) {
    constexpr int kLooksMax = 100000;
    for (int look = 0; threadCount() != expected; ++look) {
        if (look == kLooksMax) return false;
        sched_yield();
    }
    return true;
}
