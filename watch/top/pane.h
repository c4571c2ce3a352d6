// How one table is looked at: its filter, its order, the row that is open, the cursor. A pane holds
// the numbers of rows, in the order in which they are shown; the rows themselves are TopRows
// (watch/top/rows.h), which come with each call.
//
// Sorting takes as long as the table is large and is done once for each interval, filter or column;
// what moves only the cursor takes no time.
//
// Ownership: a pane owns its lists.
//
// Failure: paneArrange throws std::bad_alloc; the pane stays stale.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "watch/top/filter.h"
#include "watch/top/rows.h"

// Columns to sort by that no number is in; the numbers follow, and the reliability after them.
enum PaneSortColumn : size_t { kSortPort, kSortGroup, kSortSubject, kSortNumbers };

// A line of a table: a row, or a host below the row that is open.
struct PaneLine {
    static constexpr uint32_t kNoHost = UINT32_MAX;

    uint32_t row;
    uint32_t host = kNoHost;

    bool operator==(const PaneLine&) const = default;
};

// A row, wherever it moves.
struct PaneKey {
    uint16_t port = 0;
    uint32_t group = 0;
    std::vector<uint8_t> subject;  // packed; empty in tables without

    bool operator==(const PaneKey&) const = default;
};

struct Pane {
    size_t sortColumn = kSortNumbers;
    bool isAscending = false;
    TopFilter filter;
    bool hasOpen = false;
    PaneKey openKey;

    // Of rows, and of the hosts of the open one, which is at `openAt` of `order`.
    bool isStale = true;
    std::vector<uint32_t> order;
    std::vector<uint32_t> hosts;
    size_t openAt = 0;

    // Lines: the row or host under the cursor, and the one at the top.
    size_t cursor = 0;
    size_t scroll = 0;
    bool hasCursorKey = false;  // false at the top, where the cursor stays
    PaneKey cursorKey;
};

// Has the table that column? The number of columns counts all that any table has.
[[nodiscard]] bool paneHasColumn(TopTable table, size_t column);
[[nodiscard]] size_t paneColumns(TopTable table);

// Filters and sorts the rows, finds the open one and sorts its hosts, if the pane is stale. The
// cursor goes where its row went.
void paneArrange(Pane& pane, const TopRows& rows);

// Moves the cursor to the line, or to the last one.
void paneMove(Pane& pane, const TopRows& rows, size_t line);

// Brings the lines that `room` shows to the cursor.
void paneScroll(Pane& pane, size_t room);

// Opens the row under the cursor; where that is open, or one of its hosts is under the cursor, it
// is closed.
void paneToggle(Pane& pane, const TopRows& rows);
void paneClose(Pane& pane);

// Of an arranged pane.
[[nodiscard]] size_t paneLineCount(const Pane& pane);
[[nodiscard]] PaneLine paneLine(const Pane& pane, size_t line);
