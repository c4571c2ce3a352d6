// The bridge's log: lines with their time on the standard error stream.
//
// A line is written only where the stream takes it at once: a reader that has stalled costs lines
// and holds nothing up, neither the bus nor NATS. The next line that is written says how many are
// missing.
//
// Threads: any, also with locks held.

#pragma once

#include <cstdint>
#include <string>

// Control characters are shown as "?".
void bridgeSay(const std::string& text);

// "WHAT: ABOUT (COUNT so far)", the same `what` at most once a second, and ever more rarely up to
// once a minute while it lasts. `what` is a constant.
void bridgeSayFault(uint64_t count, const char* what, const std::string& about);
