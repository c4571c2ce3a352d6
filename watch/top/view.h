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

#include "watch/top/model.h"
#include "watch/top/screen.h"

inline constexpr ScreenSize kViewLeast = {40, 10};

// How many lines of rows a screen of that size has.
[[nodiscard]] size_t viewRoom(ScreenSize size);

// Of an arranged model. The screen has its signs.
void viewDraw(const TopModel& model, ScreenSize size, Screen& screen);
