// Stand-ins: a daemon that a client's library has started, with -no-permanent, because it found
// none. It hands its port over to a daemon of the same user or of root that asks for it:
//
//     asking daemon -> stand-in   connects to the local socket "pelmo-pmd-PORT"
//     stand-in -> asking daemon   'y' once it no longer listens; 'n', and nothing changes
//
// The name is an abstract one, so that it is as wide as the port, one network namespace, and ends
// with its process. The system says who asks. Anyone who takes the name first keeps the stand-in
// from being asked, which costs the hand-over and nothing else.
//
// Threads: standInOffer and standInEnd on one thread, while the library is open; standInAsk on any,
// and it needs no library.

#pragma once

#include <cstdint>

// Waits to be asked on a thread of the library. `handOver` runs there for a process that may ask,
// and returns whether the daemon no longer listens. False if the name is taken.
[[nodiscard]] bool standInOffer(uint16_t port, bool (*handOver)());
void standInEnd();

enum class HandOver : uint8_t { kGiven, kRefused, kNobody };

// Waits kHandOverSeconds at most for the answer.
inline constexpr double kHandOverSeconds = 2.0;
[[nodiscard]] HandOver standInAsk(uint16_t port);
