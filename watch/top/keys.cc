#include "watch/top/keys.h"

#include <algorithm>

namespace {

using enum TopAction;
using enum TopKeyGroup;

constexpr TopKeyRow kRows[] = {
    {kUp, {kKeyUp, 'k'}, kMove, "Up Down", "a row up or down (k, j)", nullptr, 0},
    {kDown, {kKeyDown, 'j'}, kMove, nullptr, nullptr, nullptr, 0},
    {kPageUp, {kKeyPageUp}, kMove, "PgUp PgDn", "a screen up or down", nullptr, 0},
    {kPageDown, {kKeyPageDown}, kMove, nullptr, nullptr, nullptr, 0},
    {kWheelUp, {kKeyWheelUp}, kMove, "Mouse", "wheel; click a row, a heading, a table", nullptr, 0},
    {kWheelDown, {kKeyWheelDown}, kMove, nullptr, nullptr, nullptr, 0},
    {kFirst, {kKeyHome, 'g'}, kMove, "Home End", "the first row, the last (g, G)", nullptr, 0},
    {kLast, {kKeyEnd, 'G'}, kMove, nullptr, nullptr, nullptr, 0},
    {kTable1, {'1'}, kMove, "1 2 3 4", "one of the four tables", nullptr, 0},
    {kTable2, {'2'}, kMove, nullptr, nullptr, nullptr, 0},
    {kTable3, {'3'}, kMove, nullptr, nullptr, nullptr, 0},
    {kTable4, {'4'}, kMove, nullptr, nullptr, nullptr, 0},
    {kNextTable, {kKeyTab}, kMove, "Tab", "the next table (Shift: the one before)", "tables", 5},
    {kPreviousTable, {kKeyBackTab}, kMove, nullptr, nullptr, nullptr, 0},

    {kOpen,
     {kKeyEnter, '\n'},
     kShow,
     "Enter",
     "open the row to its hosts, or close it",
     "hosts",
     4},
    {kFilter,
     {'/'},
     kShow,
     "/",
     "filter: words of a pattern, address, :port, text, gaps>0, !word",
     "filter",
     2},
    {kBack, {kKeyEscape}, kShow, "Esc", "clear the filter, close the row", nullptr, 0},
    {kRates, {'r'}, kShow, "r", "rates a second, or counts of the interval", "rates", 8},

    {kSortLeft,
     {kKeyLeft, '<'},
     kSort,
     "Left Right",
     "sort by the column beside (<, >)",
     "sort",
     6},
    {kSortRight, {kKeyRight, '>'}, kSort, nullptr, nullptr, nullptr, 0},
    {kSortTurn, {'i'}, kSort, "i", "turn the order round", nullptr, 0},

    {kHold, {' '}, kTime, "Space", "freeze the screen; pause a saved capture", "freeze", 7},
    {kFaster, {'+', '='}, kTime, "+ -", "a saved capture faster, slower", nullptr, 0},
    {kSlower, {'-'}, kTime, nullptr, nullptr, nullptr, 0},

    {kHelp, {'?', 'h'}, kProgram, "?", "this help (h)", "help", 1},
    {kRedraw, {kKeyRedraw}, kProgram, "Ctrl-L", "draw the screen again", nullptr, 0},
    {kQuit, {'q', 'Q'}, kProgram, "q", "quit", "quit", 3},
};

}  // namespace

std::span<const TopKeyRow> topKeyRows() {
    return kRows;
}

TopAction topKeyAction(uint32_t key) {
    if (key == 0) return kNone;
    for (const TopKeyRow& row : kRows) {
        if (std::ranges::count(row.keys, key) != 0) return row.action;
    }
    return kNone;
}
