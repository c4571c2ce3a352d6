#include "bus/tally.h"

#include <algorithm>

#include "programs/steady_time.h"

constinit Tally benchTally;

void tallyTake(pelmoMsg** messages, uint32_t count) {
    constexpr auto kRelaxed = std::memory_order_relaxed;  // only numbers, each for itself
    const int64_t now = steadyNow();
    const uint64_t before = benchTally.messages.load(kRelaxed);
    const uint64_t taken = std::min<uint64_t>(count, benchTally.most - before);
    uint64_t bytes = benchTally.bytes.load(kRelaxed);
    for (uint64_t i = 0; i < taken; ++i) {
        uint32_t sizeBytes = 0;
        if (pelmoMsg_GetByteSize(messages[i], &sizeBytes) == kStatusSuccess) bytes += sizeBytes;
    }
    if (benchTally.first.load(kRelaxed) == 0) benchTally.first.store(now, kRelaxed);
    benchTally.last.store(now, kRelaxed);
    benchTally.bytes.store(bytes, kRelaxed);
    benchTally.messages.store(before + taken, kRelaxed);
    benchTally.done = before + taken == benchTally.most;
}
