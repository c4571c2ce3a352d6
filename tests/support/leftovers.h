// What a whole run of the library may leave behind in the process: descriptors, threads, objects
// with ids, and, under the address sanitizer, memory.

#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <ostream>

#include "lib/base/sanitizer.h"
#include "tests/support/runtime_objects.h"
#include "tests/support/thread_count.h"

struct Leftovers {
    size_t descriptors;
    size_t threads;
    size_t objects;

    bool operator==(const Leftovers&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Leftovers& left) {
    return out << left.descriptors << " descriptors, " << left.threads << " threads, "
               << left.objects << " objects";
}

inline size_t descriptorCount() {
    size_t count = 0;
    DIR* const folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

inline Leftovers leftovers() {
    return {descriptorCount(), threadCount(), objectCount()};
}

// What ends on other threads is waited for. Returns what is there in the end.
inline Leftovers leftoversOnceThey(const Leftovers& become) {
    Leftovers now = leftovers();
    for (int look = 0; look < 5'000 && now != become; ++look) {
        (void)poll(nullptr, 0, 1);
        now = leftovers();
    }
    return now;
}

inline bool noMemoryIsLost() {
#ifdef PELMO_ADDRESS_SANITIZER
    return __lsan_do_recoverable_leak_check() == 0;
#else
    return true;
#endif
}
