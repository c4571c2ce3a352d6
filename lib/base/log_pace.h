// Log lines that each packet may cause. Once the pace has begun, a line comes at most once a
// second, with a count of those of the same text that were held back before it:
//
//     Out of memory allocating host entry
//     Out of memory allocating host entry (81234 more)
//
// Lines that name different peers are paced by their kind, a fixed number a second:
//
//     bad magic from 192.0.2.1:40112 (17 more)
//
// Until then each is written as it comes: what a run over a saved capture writes doesn't depend on
// its speed.
//
// Failure: 32 texts are known by their first 95 bytes, or as below. A further text takes the place
// of one that has had no line for a second; where there is none, its lines are written as they
// come.
//
// Threads: any, under any lock that ranks before LockRank::kLeaf.

#pragma once

#include <cstdint>

[[gnu::format(printf, 1, 2)]] void logPaced(const char* format, ...);

// `kind` is a text that all lines of the kind share; up to kPacedLinesOfKind of them are written a
// second.
inline constexpr uint32_t kPacedLinesOfKind = 50;
[[gnu::format(printf, 2, 3)]] void logPacedAs(const char* kind, const char* format, ...);

// The whole line, however long it is, and paced from the first one on: for what the library reports
// of itself. Lines are the same whose first 511 bytes are.
[[gnu::format(printf, 1, 2)]] void logPacedLine(const char* format, ...);

void logPaceBegin();

// Writes the lines that were held back for a second or longer: their text may never come again.
void logPaceSettle();
