// Draws the model: what it knows and the size of a screen in, lines of styled text out.
//
//     head       the source, the time, the interval; what came, faults, drops
//     tables     their names, with how many rows each has
//     headings   of the columns; the one that sorts has an arrow
//     totals     of the table
//     rows       as many as there is room for; below the open one its hosts
//     bars       the last minutes of the row under the cursor
//     hints      keys; or the filter, or a note
//
// A screen of few lines has a head of one line and no totals. A narrow one has less columns of
// numbers, from the left, and always the one that sorts. Below kViewLeast there is one line that
// says so.
//
// Times are local ones.
//
// Threads: no state; the owner serialises.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "watch/top/model.h"
#include "watch/top/screen.h"

inline constexpr ScreenSize kViewLeast = {40, 10};

// How many lines of rows a screen of that size has.
[[nodiscard]] size_t viewRoom(ScreenSize size);

// Of an arranged model. The screen has its signs.
void viewDraw(const TopModel& model, ScreenSize size, Screen& screen);

// Numbers as short text for columns: exact where that fits, else rounded, with k, M, G, T, P or E
// for the thousands.

// At least this many characters hold any number.
inline constexpr size_t kNumberColumns = 5;

// 12345, 123456 as "123k" where only five fit.
[[nodiscard]] std::string countText(uint64_t number, size_t columns);

// 0, 0.25, 2.5, 25.1, 251, 25100. What isn't 0 is never shown as 0.
[[nodiscard]] std::string rateText(double rate, size_t columns);

// A number that a sender announced: "-" where it is no sound one.
[[nodiscard]] std::string announcedText(double number, size_t columns);

// A series as bars of eight heights, of which the lowest is 0 alone, or as ASCII.
[[nodiscard]] std::string barsText(std::span<const float> series, bool hasBlocks);

// "45 s", "12 min", "3 h".
[[nodiscard]] std::string spanText(double seconds);
