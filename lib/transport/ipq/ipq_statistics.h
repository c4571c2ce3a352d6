// What a queue counts, apart for each direction.

#pragma once

#include <cstdint>

struct IpqStatistics {
    uint64_t messages;
    uint64_t bytes;
    uint32_t attempts;
    uint32_t failures;  // would-block and out of buffers
    uint32_t partials;
    uint32_t zeroSends;    // of writes alone
    uint32_t mostWaiting;  // messages, of writes alone
};
