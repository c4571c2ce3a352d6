// What the system tells of this process.
//
// Failure: 0 for what it doesn't tell.
//
// Threads: any.

#pragma once

#include <cstdint>

struct ProcessUsage {
    double cpuSeconds;        // user and system time
    double startTimeSeconds;  // since 1970
    uint64_t residentBytes, virtualBytes;
    uint64_t openDescriptors, mostDescriptors;
};

[[nodiscard]] ProcessUsage processUsage();
