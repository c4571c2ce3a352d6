#include "watch/top/pane.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <tuple>

#include "lib/containers/subject.h"

namespace {

PaneKey keyOf(const TopRows& rows, const TopRow& row) {
    PaneKey key = {.port = row.port, .group = row.group, .subject = {}};
    if (topTableInfo(rows.table).hasSubjects) {
        const uint8_t* const subject = rowSubject(rows, row);
        key.subject.assign(subject, subject + subjectLength(subject));
    }
    return key;
}

bool isRow(const PaneKey& key, const TopRows& rows, const TopRow& row) {
    if (row.port != key.port || row.group != key.group) return false;
    return key.subject.empty() ||
           subjectIs(rowSubject(rows, row), key.subject.data(), key.subject.size());
}

// The row's place in the order; the order's size where it has none.
size_t findRow(const Pane& pane, const TopRows& rows, const PaneKey& key) {
    const auto found = std::ranges::find_if(
        pane.order, [&](uint32_t row) { return isRow(key, rows, rows.rows[row]); });
    return static_cast<size_t>(found - pane.order.begin());
}

// What is sorted: a value and, where values are the same, the place among the rows or hosts, whose
// own order is that of ports, groups and subjects.
struct Item {
    uint64_t value;
    uint32_t place;
};

void sortItems(std::vector<Item>& items, bool isAscending, std::vector<uint32_t>& order) {
    // Turned round the smallest is the largest; the places keep their order.
    if (!isAscending) {
        for (Item& item : items) {
            item.value = ~item.value;
        }
    }
    std::ranges::sort(items, [](const Item& left, const Item& right) {
        return std::tie(left.value, left.place) < std::tie(right.value, right.place);
    });
    order.resize(items.size());
    std::ranges::transform(items, order.begin(), &Item::place);
}

// In the order of the double, whatever double it is; what is no number is least.
uint64_t orderedBits(double number) {
    if (std::isnan(number)) return 0;
    const auto bits = std::bit_cast<uint64_t>(number);
    constexpr uint64_t kSign = uint64_t{1} << 63;
    return (bits & kSign) != 0 ? ~bits : bits | kSign;
}

uint64_t rowValue(const TopRows& rows, uint32_t at, size_t column) {
    const TopRow& row = rows.rows[at];
    if (column == kSortPort) return row.shownPort;
    if (column == kSortGroup) return row.group;
    const size_t number = column - kSortNumbers;
    return number < topTableInfo(rows.table).columnCount ? rowNumbers(rows, at)[number] : 0;
}

uint64_t hostValue(const TopRows& rows, uint32_t at, size_t column) {
    const TopHost& host = rows.hosts[at];
    const TopTableInfo& info = topTableInfo(rows.table);
    if (column < kSortNumbers) return uint64_t{host.address} << 16 | host.scid;
    const size_t number = column - kSortNumbers;
    if (number == info.columnCount) return orderedBits(host.reliability);
    return hostNumbers(rows, at)[number];
}

// Rows lie by port and group, so their subjects are some ordered runs.
void sortBySubject(Pane& pane, const TopRows& rows) {
    const auto isBefore = [&](uint32_t left, uint32_t right) {
        return subjectCompare(rowSubject(rows, rows.rows[left]),
                              rowSubject(rows, rows.rows[right])) < 0;
    };
    std::vector<size_t> ends;
    for (size_t at = 0; at < pane.order.size(); ++at) {
        const bool isEnd =
            at + 1 == pane.order.size() || isBefore(pane.order[at + 1], pane.order[at]);
        if (isEnd) ends.push_back(at + 1);
    }
    const auto begin = pane.order.begin();
    const auto placeOf = [&](size_t end) { return begin + static_cast<ptrdiff_t>(end); };
    while (ends.size() > 1) {
        std::vector<size_t> merged;
        size_t from = 0;
        for (size_t run = 0; run < ends.size(); run += 2) {
            const size_t end = ends[std::min(run + 1, ends.size() - 1)];
            std::inplace_merge(placeOf(from), placeOf(ends[run]), placeOf(end), isBefore);
            merged.push_back(from = end);
        }
        ends = std::move(merged);
    }
    if (!pane.isAscending) std::ranges::reverse(pane.order);
}

void sortRows(Pane& pane, const TopRows& rows) {
    std::vector<Item> items;
    items.reserve(rows.rows.size());
    for (uint32_t at = 0; at < rows.rows.size(); ++at) {
        if (!filterShows(pane.filter, rows, at)) continue;
        items.push_back({rowValue(rows, at, pane.sortColumn), at});
    }
    if (pane.sortColumn != kSortSubject) return sortItems(items, pane.isAscending, pane.order);
    pane.order.resize(items.size());
    std::ranges::transform(items, pane.order.begin(), &Item::place);
    sortBySubject(pane, rows);
}

// The two sides of a host stay together, by the sum of both.
void sortHosts(Pane& pane, const TopRows& rows) {
    const TopRow& row = rows.rows[pane.order[pane.openAt]];
    const uint32_t sides = topTableInfo(rows.table).hasGroups ? 1 : 2;
    const bool isNumber = pane.sortColumn >= kSortNumbers;
    std::vector<Item> items;
    for (uint32_t at = row.firstHost; at < row.firstHost + row.hostCount; at += sides) {
        uint64_t value = hostValue(rows, at, pane.sortColumn);
        if (sides == 2 && isNumber) value += hostValue(rows, at + 1, pane.sortColumn);
        items.push_back({value, at});
    }
    std::vector<uint32_t> firsts;
    sortItems(items, pane.isAscending, firsts);
    for (const uint32_t first : firsts) {
        pane.hosts.push_back(first);
        if (sides == 2) pane.hosts.push_back(first + 1);
    }
}

void findOpen(Pane& pane, const TopRows& rows) {
    pane.hosts.clear();
    if (!pane.hasOpen) return;
    pane.openAt = findRow(pane, rows, pane.openKey);
    if (pane.openAt < pane.order.size()) sortHosts(pane, rows);
}

size_t lineOf(const Pane& pane, size_t row) {
    return !pane.hosts.empty() && row > pane.openAt ? row + pane.hosts.size() : row;
}

}  // namespace

bool paneHasColumn(TopTable table, size_t column) {
    const TopTableInfo& info = topTableInfo(table);
    if (column == kSortGroup) return info.hasGroups;
    if (column == kSortSubject) return info.hasSubjects;
    return column < paneColumns(table);
}

size_t paneColumns(TopTable table) {
    const TopTableInfo& info = topTableInfo(table);
    return kSortNumbers + info.columnCount + (info.hasReliability ? 1 : 0);
}

void paneArrange(Pane& pane, const TopRows& rows) {
    if (!pane.isStale) return;
    // How far below its row the cursor is among hosts.
    const bool isAmongHosts =
        pane.cursor > pane.openAt && pane.cursor <= pane.openAt + pane.hosts.size();
    const size_t below = isAmongHosts ? pane.cursor - pane.openAt : 0;
    sortRows(pane, rows);
    findOpen(pane, rows);
    pane.isStale = false;
    if (!pane.hasCursorKey) {
        pane.cursor = 0;
        return;
    }
    const size_t row = findRow(pane, rows, pane.cursorKey);
    if (row < pane.order.size()) {
        pane.cursor = lineOf(pane, row) + std::min(below, pane.hosts.size());
    }
    pane.cursor = std::min(pane.cursor, std::max<size_t>(paneLineCount(pane), 1) - 1);
}

void paneMove(Pane& pane, const TopRows& rows, size_t line) {
    const size_t count = paneLineCount(pane);
    pane.cursor = std::min(line, std::max<size_t>(count, 1) - 1);
    pane.hasCursorKey = pane.cursor != 0;
    if (pane.hasCursorKey) {
        pane.cursorKey = keyOf(rows, rows.rows[paneLine(pane, pane.cursor).row]);
    }
}

void paneScroll(Pane& pane, size_t room) {
    const size_t count = paneLineCount(pane);
    pane.scroll = std::min(pane.scroll, count - std::min(count, room));
    pane.scroll = std::min(pane.scroll, pane.cursor);
    if (pane.cursor >= pane.scroll + room) pane.scroll = pane.cursor - room + 1;
}

void paneToggle(Pane& pane, const TopRows& rows) {
    if (pane.order.empty()) return;
    const PaneLine line = paneLine(pane, pane.cursor);
    PaneKey key = keyOf(rows, rows.rows[line.row]);
    if (pane.hasOpen && key == pane.openKey) {
        paneMove(pane, rows, pane.openAt);
        return paneClose(pane);
    }
    pane.hasCursorKey = true;
    pane.cursorKey = key;
    pane.openKey = std::move(key);
    pane.hasOpen = true;
    pane.isStale = true;
}

void paneClose(Pane& pane) {
    pane.hasOpen = false;
    pane.isStale = true;
}

size_t paneLineCount(const Pane& pane) {
    return pane.order.size() + pane.hosts.size();
}

PaneLine paneLine(const Pane& pane, size_t line) {
    if (pane.hosts.empty() || line <= pane.openAt) return {pane.order[line]};
    const size_t host = line - pane.openAt - 1;
    if (host < pane.hosts.size()) return {pane.order[pane.openAt], pane.hosts[host]};
    return {pane.order[line - pane.hosts.size()]};
}
