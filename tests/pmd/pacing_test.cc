// Pacing: a sender waits for a receiver that keeps up some pace, and for no other.

#include "pmd/pacing.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;

TEST(Pacing, WaitsForWhoKeepsUp) {
    EXPECT_FALSE(paceBegins(4 * kMiB));
    EXPECT_TRUE(paceBegins(4 * kMiB + 1));

    Pace pace = paceBegin(8 * kMiB, 10.0);
    EXPECT_FALSE(paceEnds(&pace, 8 * kMiB, 10.2));
    EXPECT_FALSE(paceEnds(&pace, 8 * kMiB - kPaceLeastBytes, 10.25));
    EXPECT_FALSE(paceEnds(&pace, 5 * kMiB, 10.49));
    EXPECT_FALSE(paceEnds(&pace, 5 * kMiB, 10.5));
    EXPECT_TRUE(paceEnds(&pace, 5 * kMiB - kPaceLeastBytes + 1, 10.75));  // too little for a while

    pace = paceBegin(8 * kMiB, 10.0);
    EXPECT_TRUE(paceEnds(&pace, kMiB, 10.01));

    // One that gets messages of others meanwhile takes too little as well.
    pace = paceBegin(8 * kMiB, 10.0);
    EXPECT_TRUE(paceEnds(&pace, 9 * kMiB, 10.25));
}

}  // namespace
