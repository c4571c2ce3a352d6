// Why frames weren't read as packets of the bus, in words that all forms share.
//
// Pure.

#pragma once

#include <cstdint>
#include <span>
#include <string>

// "1 not IP, 2 IPv6" of counts by reason (peel.h); empty where all are 0. Safe text.
[[nodiscard]] std::string notReadText(std::span<const uint64_t> counts);

// What a screen says since the start of a run: "none of 3 frames is the bus's: 1 not IP, 2 IPv6" of
// a capture that is blind so far, "not the bus's: ..." of any other, and nothing where all were.
[[nodiscard]] std::string notReadSummary(std::span<const uint64_t> counts, uint64_t busPackets);
