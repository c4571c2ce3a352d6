// Random lives of reliable endpoints, each from a seed. Under the address sanitizer they leave no
// memory. RELIABLE_SEEDS says how many; RELIABLE_SEED is one alone, with a line for each
// packet:
//
//     RELIABLE_SEED=4711 build/release/bin/transport_tests
//     --gtest_filter=ReliableLives.HoldAllPromises

#include <gtest/gtest.h>

#include <cstdlib>

#include "lib/base/sanitizer.h"
#include "tests/support/fail_alloc.h"
#include "tests/support/reliable_model.h"
#include "tests/support/test.h"

namespace {

#if defined(PELMO_ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG)
constexpr uint64_t kSeeds = 1'000;
#else
constexpr uint64_t kSeeds = 5'000;
#endif
constexpr uint64_t kMostFaults = 10;  // are shown

constexpr NetMemory kFailingMemory = {0, allocationsArm, allocationsHeal};

void liveAll(uint64_t begin, uint64_t end, FILE* trace) {
    ModelOutcome sum = {};
    uint64_t faults = 0;
    for (uint64_t seed = begin; seed < end && faults < kMostFaults; ++seed) {
        const ModelOutcome outcome = modelLive(seed, kFailingMemory, trace);
        sum.messages += outcome.messages;
        sum.packets += outcome.packets;
        sum.repeats += outcome.repeats;
        if (outcome.fault.empty()) continue;
        ++faults;
        ADD_FAILURE() << outcome.fault << "\nRELIABLE_SEED=" << seed
                      << " build/release/bin/transport_tests"
                         " --gtest_filter=ReliableLives.HoldAllPromises";
    }
    std::printf("%ju messages, %ju packets, %ju of them repeats\n", uintmax_t{sum.messages},
                uintmax_t{sum.packets}, uintmax_t{sum.repeats});
}

TEST(ReliableLives, HoldAllPromises) {
    if (const char* const seed = std::getenv("RELIABLE_SEED")) {
        const uint64_t one = std::strtoull(seed, nullptr, 0);
        return liveAll(one, one + 1, stdout);
    }
    const char* const seeds = std::getenv("RELIABLE_SEEDS");
    liveAll(1, 1 + (seeds != nullptr ? std::strtoull(seeds, nullptr, 0) : kSeeds), nullptr);
    EXPECT_TRUE(noMemoryIsLost());
}

}  // namespace
