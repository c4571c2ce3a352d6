// Numbers as short text for columns: exact where that fits, else rounded, with k, M, G, T, P or E
// for the thousands.
//
// Threads: any; no state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// At least this many characters hold any number.
inline constexpr size_t kNumberColumns = 5;

// 12345, 123456 as "123k" where only five fit.
[[nodiscard]] std::string countText(uint64_t number, size_t columns);

// 0, 0.25, 2.5, 25.1, 251, 25100. What isn't 0 is never shown as 0.
[[nodiscard]] std::string rateText(double rate, size_t columns);

// A number that a sender told: "-" where it is no sound one.
[[nodiscard]] std::string toldText(double number, size_t columns);

// A series as bars of eight heights, of which the lowest is 0 alone, or as ASCII.
[[nodiscard]] std::string barsText(std::span<const float> series, bool hasBlocks);

// "45 s", "12 min", "3 h".
[[nodiscard]] std::string spanText(double seconds);
