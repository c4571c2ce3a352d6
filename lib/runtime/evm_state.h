// What all parts of the event manager share: its lock, and the word that tells whether it runs.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/lock.h"

// Guards the armed timers, the IO threads' table and their socket sets.
inline Lock evmLock = PELMO_LOCK_READY(LockRank::kEventManager);

// Counts starts and stops: odd while the event manager runs. A thread of its own goes on while the
// count is what it was at the thread's start, so that one which was left running by a stop on
// itself doesn't take the next start for its own. Changes under evmLock, and is read without it
// where nothing follows from it.
inline std::atomic<uint32_t> evmEpoch{0};

[[nodiscard]] inline bool evmRuns() {
    return evmEpoch.load(std::memory_order_acquire) % 2 != 0;
}

[[nodiscard]] inline bool evmIsAt(uint32_t epoch) {
    return evmEpoch.load(std::memory_order_acquire) == epoch;
}
