// An open pool manager, closed at the end of the scope.

#pragma once

#include <gtest/gtest.h>

#include "lib/msg/pool.h"
#include "tests/support/test.h"

struct OpenPools : NoCopy {
    explicit OpenPools(uint32_t useThreadCache) {
        EXPECT_EQ(poolManagerOpen(useThreadCache), kStatusSuccess);
        poolThreadEnter();
    }
    ~OpenPools() { poolManagerClose(); }
};

inline uint32_t availableIn(ChunkPool* pool) {
    uint32_t available = 0;
    poolSizes(pool, nullptr, &available);
    return available;
}

inline uint32_t chunksIn(ChunkPool* pool) {
    uint32_t chunks = 0;
    poolSizes(pool, &chunks, nullptr);
    return chunks;
}
