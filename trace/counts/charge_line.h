// The line in which charges wait for the cache (trace/counts/charge.h). It is part of the
// statistics and ends with them.

#pragma once

#include <cstdint>

#include "lib/containers/subject.h"

struct NetEntry;

struct WaitingCharge {
    NetEntry* net;    // lives as long as the statistics
    uint64_t sender;  // hostKey
    uint32_t messageBytes;
    uint32_t subjectHash;
    uint8_t subject[kSubjectMaxBytes];  // packed; bytes behind its end are undefined
};

inline constexpr uint32_t kChargesInLine = 16;  // a power of two

struct ChargeLine {
    uint32_t entered;  // in all; modulo the length, the place of the next one
    uint32_t waiting;  // the number of those that are still in the line
    WaitingCharge places[kChargesInLine];
};
