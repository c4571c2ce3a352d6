// What the system says of this process.
//
// Failure: 0 for what it doesn't say.
//
// Threads: one at a time.

#pragma once

#include <cstdint>

struct ProcessUsage {
    double cpuSeconds;        // user and system time
    double startTimeSeconds;  // since 1970
    uint64_t residentBytes, virtualBytes;
    uint64_t openDescriptors, mostDescriptors;
};

// With the rights that the program was started with: without them the descriptors can't be counted.
void processUsageStart();

[[nodiscard]] ProcessUsage processUsage();
