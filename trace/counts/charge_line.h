// The line in which charges wait for the cache (trace/counts/charge.h). It is part of the
// statistics and ends with them.

#pragma once

#include <cstdint>

#include "lib/containers/subject.h"

struct NetEntry;

struct WaitingCharge {
    NetEntry* net;    // stays for as long as the statistics
    uint64_t sender;  // hostKey
    uint32_t messageBytes;
    uint32_t subjectHash;
    uint8_t subject[kSubjectMaxBytes];  // packed; only its own length is set
};

inline constexpr uint32_t kChargesInLine = 16;  // a power of two

struct ChargeLine {
    uint32_t entered;  // ever; the place of the next one, wrapped around
    uint32_t waiting;  // the last so many that entered
    WaitingCharge places[kChargesInLine];
};
