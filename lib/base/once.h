// A gate that runs a set-up once per process, whoever comes first; the others wait for its end.
//
//     OnceGate gate;
//     const pelmoStatus status = oncePass(gate, [] { ... });
//
// Failure: kStatusOsError for a caller that gave up after 100 looks, 0.05 seconds apart; the set-up
// may still end, and later callers then pass. A set-up that passes its own gate gets it, too. The
// status of the set-up itself isn't handed on: the set-up stores it where its callers look.
//
// Threads: any. What the set-up wrote is seen by all who passed.

#pragma once

#include <atomic>
#include <cstdint>

#include "lib/base/status.h"

struct OnceGate {
    // 1: nobody came yet. 0 and a little below: the set-up runs. kOnceDone and a little below, for
    // those who came as it ended: it has run.
    std::atomic<int32_t> word{1};
};

inline constexpr int32_t kOnceDone = -65536;

using OnceSetUp = void (*)();

// `pause` is what a waiting caller does between two looks: a sleep, except in tests.
void oncePauseShort();
[[nodiscard]] pelmoStatus oncePass(OnceGate& gate,
                                   OnceSetUp setUp,
                                   void (*pause)() = oncePauseShort);
