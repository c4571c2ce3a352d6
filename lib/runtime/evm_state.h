// The state that all parts of the event manager share: its lock and its epoch.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/lock.h"

// Guards the timer heap, the table of IO threads and their poll sets.
inline Lock evmLock = PELMO_LOCK_READY(LockRank::kEventManager);

// Counts starts and stops: odd while the event manager runs. Each of its threads runs while the
// count is what it was at the thread's start, so that a thread which stopped the event manager
// itself doesn't join in after the next start. It changes under evmLock, and is read without the
// lock when a stale value does no harm.
inline std::atomic<uint32_t> evmEpoch{0};

[[nodiscard]] inline bool evmRuns() {
    return evmEpoch.load(std::memory_order_acquire) % 2 != 0;
}

[[nodiscard]] inline bool evmIsAt(uint32_t epoch) {
    return evmEpoch.load(std::memory_order_acquire) == epoch;
}
