// How many threads the process has, as the system sees it.

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

// A thread that has ended may stand in the system's list a moment longer. For threads that nobody
// can join. False where there are still more, or fewer, after a while.
inline bool threadsBecome(size_t expected) {
    constexpr int kLooksMax = 100000;
    for (int look = 0; threadCount() != expected; ++look) {
        if (look == kLooksMax) return false;
        sched_yield();
    }
    return true;
}
