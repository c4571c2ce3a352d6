// The pipeline in which charges wait for the cache (trace/counts/charge.h). It is part of the
// statistics.

#pragma once

#include <cstdint>

#include "lib/containers/subject.h"

struct NetEntry;

struct WaitingCharge {
    NetEntry* net;    // lives as long as the statistics
    uint64_t sender;  // hostKey
    uint32_t messageBytes;
    uint32_t subjectHash;
    uint8_t subject[kSubjectMaxBytes];  // packed; bytes after its end are undefined
};

inline constexpr uint32_t kPipelineDepth = 16;  // a power of two

struct ChargePipeline {
    uint32_t entered;  // ever; modulo the depth, the place of the next one
    uint32_t waiting;  // the last so many of them
    WaitingCharge places[kPipelineDepth];
};
