#include "watch/top/view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include "lib/base/bytes.h"
#include "watch/capture/not_read.h"
#include "watch/core/text.h"
#include "watch/top/help.h"

namespace {

constexpr size_t kNarrowNumber = 7;  // columns of a number, with the blank ahead
constexpr size_t kWideNumber = 11;
constexpr size_t kLeadColumns = 24;  // of port and group, or of a host
constexpr size_t kSubjectLeast = 20;
constexpr size_t kFullHeadLines = 14;  // a screen of so many lines has a full head
constexpr double kTrailSeconds = 600;
constexpr size_t kLeastTrail = 34;  // columns for the last minutes of each row

// A drawing under way. `line` is the next one.
struct Drawing {
    const TopModel& model;
    const TopRows& rows;
    const TopTableInfo& info;
    const Pane& pane;
    Screen& screen;
    size_t line = 0;

    // The columns that there is room for, as their places among the numbers; that of the
    // reliability is after the last.
    bool hasLead = true;
    size_t numberColumns = kNarrowNumber;
    std::vector<size_t> shown = {};
};

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    std::array<char, 128> text;
    const int length = std::snprintf(text.data(), text.size(), format, values...);
    return {text.data(), std::min(static_cast<size_t>(length), text.size() - 1)};
}

bool isFull(ScreenSize size) {
    return size.lines >= kFullHeadLines;
}

// A number as the screen shows them now: a rate, or the count. An interval without a length has no
// rates.
std::string numberText(const Drawing& drawing, uint64_t number, size_t columns) {
    if (!drawing.model.showsRates) return countText(number, columns);
    const double seconds = topState(drawing.model).head.seconds;
    if (seconds <= 0) return "-";
    return rateText(static_cast<double>(number) / seconds, columns);
}

// The head.

std::string timeOf(TimeSpec time, const char* format) {
    const time_t seconds = time.seconds;
    tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text;
    return {text.data(), std::strftime(text.data(), text.size(), format, &local)};
}

// " UTC-5", " UTC+5:30"; nothing where the local time is UTC.
std::string zoneOf(TimeSpec time) {
    const time_t seconds = time.seconds;
    tm local{};
    localtime_r(&seconds, &local);
    const long minutes = std::abs(local.tm_gmtoff / 60);
    if (minutes == 0) return "";
    const char sign = local.tm_gmtoff < 0 ? '-' : '+';
    const std::string zone = formatted(" UTC%c%ld", sign, minutes / 60);
    return minutes % 60 == 0 ? zone : zone + formatted(":%02ld", minutes % 60);
}

// What a saved capture or the screen is at.
std::string stateText(const TopModel& model) {
    if (model.isLive) return model.isHeld ? "FROZEN" : model.state;
    if (model.isAtEnd) return model.state;
    const TopHead& head = model.live.head;
    std::string text;
    if (head.fileBytes != 0) {
        const uint64_t percent = std::min<uint64_t>(100, head.readBytes * 100 / head.fileBytes);
        text = formatted("%d%%  ", static_cast<int>(percent));
    }
    if (model.speed != 1) text += formatted("x%g  ", model.speed);
    return text + (model.isHeld ? "PAUSED" : "replay");
}

bool isAtRest(const TopModel& model) {
    return model.isHeld || model.isAtEnd || !model.trouble.empty();
}

// At the right edge, where the line has room for it.
void putState(Drawing& drawing) {
    Screen& screen = drawing.screen;
    const std::string state = stateText(drawing.model);
    const size_t end = screen.size.columns - 1;
    const size_t columns = screenColumns(screen, state);
    if (screen.lines[drawing.line].columns + columns + 1 > end) return;
    screenPad(screen, drawing.line, Style::kPlain, end - columns);
    screenPut(screen, drawing.line, isAtRest(drawing.model) ? Style::kStrong : Style::kPlain,
              state);
}

// Whole, or not at all; `end` is where the line ends for it.
void putSum(Drawing& drawing, const char* name, uint64_t number, bool isTrouble, size_t end) {
    Screen& screen = drawing.screen;
    const std::string text = numberText(drawing, number, 2 * kNumberColumns);
    const bool isRate = drawing.model.showsRates && topState(drawing.model).head.seconds > 0;
    const char* const unit = isRate && number != 0 ? "/s" : "";
    const bool isFirst = screen.lines[drawing.line].columns == 0;
    const std::string lead = formatted(isFirst ? " %s " : "  %s ", name);
    const size_t columns = lead.size() + text.size() + std::string_view(unit).size();
    if (screen.lines[drawing.line].columns + columns > end) return;
    const Style style = isTrouble && number != 0 ? Style::kTrouble : Style::kStrong;
    screenPut(screen, drawing.line, Style::kPlain, lead);
    screenPut(screen, drawing.line, style, text);
    screenPut(screen, drawing.line, Style::kPlain, unit);
}

void putSums(Drawing& drawing, size_t end) {
    const TopHead& head = topState(drawing.model).head;
    putSum(drawing, "Bus", head.busPackets, false, end);
    putSum(drawing, "Faults", head.faults, true, end);
    if (drawing.model.isLive) putSum(drawing, "Drops", head.drops, true, end);
    if (isFull(drawing.screen.size)) putSum(drawing, "Frames", head.frames, false, end);
}

// False where there is nothing yet to tell the time of.
bool putTime(Drawing& drawing, const char* format, bool hasZone) {
    const TopHead& head = topState(drawing.model).head;
    const std::string text = head.isThere
                                 ? timeOf(head.time, format) + (hasZone ? zoneOf(head.time) : "")
                                 : "waiting for the first interval";
    screenPut(drawing.screen, drawing.line, head.isThere ? Style::kStrong : Style::kPlain,
              " " + text);
    return head.isThere;
}

// What isn't the bus's; a capture without anything else is trouble.
void putNotRead(Drawing& drawing, size_t end) {
    const TopSeen& seen = topState(drawing.model).seen;
    const std::string text = notReadSummary(seen.notRead, seen.busPackets);
    const size_t used = drawing.screen.lines[drawing.line].columns;
    if (text.empty() || used + 1 >= end) return;
    screenPut(drawing.screen, drawing.line, Style::kPlain, " ");
    const size_t columns = std::min(screenColumns(drawing.screen, text), end - used - 1);
    screenPutIn(drawing.screen, drawing.line,
                seen.busPackets == 0 ? Style::kTrouble : Style::kPlain, text, columns);
}

bool isBlind(const TopModel& model) {
    const TopSeen& seen = topState(model).seen;
    return seen.busPackets == 0 && !notReadText(seen.notRead).empty();
}

void drawShortHead(Drawing& drawing) {
    const size_t columns = drawing.screen.size.columns;
    const size_t stateColumns = isAtRest(drawing.model) ? stateText(drawing.model).size() + 2 : 0;
    const bool isThere = putTime(drawing, "%H:%M:%S", false);
    if (isBlind(drawing.model)) {
        putNotRead(drawing, columns - stateColumns);
    } else if (isThere) {
        putSums(drawing, columns - stateColumns);
    }
    putState(drawing);
    ++drawing.line;
}

void drawFullHead(Drawing& drawing) {
    Screen& screen = drawing.screen;
    const size_t columns = screen.size.columns;
    screenPut(screen, drawing.line, Style::kPlain, " ");
    const size_t nameColumns = screenColumns(screen, drawing.model.source);
    screenPutIn(screen, drawing.line, Style::kStrong, drawing.model.source,
                std::min(nameColumns, columns / 4));
    screenPut(screen, drawing.line, Style::kPlain, " ");
    const bool isThere =
        putTime(drawing, columns < 60 ? "%H:%M:%S" : "%Y-%m-%d %H:%M:%S", columns >= 60);
    if (isThere) {
        const std::string span = spanText(topState(drawing.model).head.seconds);
        screenPut(screen, drawing.line, Style::kPlain, "  " + span);
    }
    putState(drawing);
    ++drawing.line;
    if (isThere) putSums(drawing, columns);
    ++drawing.line;
    putNotRead(drawing, columns);
    ++drawing.line;
}

void drawHead(Drawing& drawing) {
    return isFull(drawing.screen.size) ? drawFullHead(drawing) : drawShortHead(drawing);
}

// The tables' names.

struct TabForm {
    bool isShort;
    bool hasCount;
};

std::string tabText(const Drawing& drawing, size_t table, TabForm form) {
    const TopTableInfo& info = kTopTableInfos[table];
    const size_t count = topState(drawing.model).tables[table].rows.size();
    const std::string name = form.isShort ? info.shortName : info.name;
    return " " + name + (form.hasCount ? " " + std::to_string(count) : "") + " ";
}

void drawTabs(Drawing& drawing) {
    Screen& screen = drawing.screen;
    for (const TabForm form : {TabForm{false, true}, {false, false}, {true, true}, {true, false}}) {
        size_t columns = 0;
        for (size_t table = 0; table < kTopTables; ++table) {
            columns += screenColumns(screen, tabText(drawing, table, form));
        }
        if (columns > screen.size.columns && !(form.isShort && !form.hasCount)) continue;
        for (size_t table = 0; table < kTopTables; ++table) {
            const bool isHere = table == static_cast<size_t>(drawing.model.table);
            const size_t begin = screen.lines[drawing.line].columns;
            screenPut(screen, drawing.line, isHere ? Style::kHere : Style::kPlain,
                      tabText(drawing, table, form));
            screenMark(screen, drawing.line, begin, SpotKind::kTable, table);
        }
        break;
    }
    ++drawing.line;
}

// Columns.

size_t numberCount(const TopTableInfo& info) {
    return info.columnCount + (info.hasReliability ? 1 : 0);
}

const char* headingOf(const TopTableInfo& info, size_t number) {
    return number < info.columnCount ? info.columns[number].heading : kReliability.heading;
}

// Fills in what there is room for.
void chooseColumns(Drawing& drawing) {
    const size_t columns = drawing.screen.size.columns;
    const size_t count = numberCount(drawing.info);
    const size_t tail = drawing.info.hasSubjects ? kSubjectLeast : 0;
    drawing.hasLead =
        !drawing.info.hasSubjects || kLeadColumns + count * kNarrowNumber + tail <= columns;
    const size_t lead = drawing.hasLead ? kLeadColumns : 1;
    const size_t room = columns - std::min(columns, lead + tail);
    if (count * kWideNumber <= room) drawing.numberColumns = kWideNumber;

    const size_t fitting = std::clamp<size_t>(room / drawing.numberColumns, 1, count);
    for (size_t number = 0; number < fitting; ++number) {
        drawing.shown.push_back(number);
    }
    const size_t sorted = drawing.pane.sortColumn - kSortNumbers;
    if (drawing.pane.sortColumn >= kSortNumbers && sorted >= fitting) {
        drawing.shown.back() = sorted;
    }
}

// The heading, with an arrow where it sorts.
std::string headingText(const Drawing& drawing, const char* heading, size_t column) {
    if (drawing.pane.sortColumn != column) return heading;
    const bool isUp = drawing.pane.isAscending;
    if (drawing.screen.signs.hasBlocks) return (isUp ? "↑" : "↓") + std::string(heading);
    return (isUp ? "^" : "v") + std::string(heading);
}

// A heading above text that begins at that column: the arrow comes before it.
void putTextHeading(Drawing& drawing, const char* heading, size_t sorts, size_t column) {
    const size_t arrowColumns = drawing.pane.sortColumn == sorts ? 1 : 0;
    screenPad(drawing.screen, drawing.line, Style::kHeading, column - arrowColumns);
    screenPut(drawing.screen, drawing.line, Style::kHeading, headingText(drawing, heading, sorts));
}

// A wide screen has the last minutes of each row after its numbers.
bool hasTrails(const Drawing& drawing) {
    const size_t used = kLeadColumns + drawing.shown.size() * drawing.numberColumns;
    return !drawing.info.hasSubjects && used + kLeastTrail <= drawing.screen.size.columns;
}

// The number that sorts, or the first.
size_t trailColumn(const Drawing& drawing) {
    const size_t sorted = drawing.pane.sortColumn - kSortNumbers;
    const bool isNumber =
        drawing.pane.sortColumn >= kSortNumbers && sorted < drawing.info.columnCount;
    return isNumber ? sorted : 0;
}

// The row's rates of the last minutes, as many as there is room for; the newest is the last.
std::vector<float> trailOf(const Drawing& drawing, const TopRow& row, size_t room) {
    const double seconds = topState(drawing.model).head.seconds;
    const double intervals = seconds > 0 ? kTrailSeconds / seconds : kTrailSeconds;
    std::vector<float> series(
        std::clamp<size_t>(static_cast<size_t>(std::min(intervals, 1e6)), 2, room));
    const size_t known =
        trailRead(drawing.model.trails[static_cast<size_t>(drawing.rows.table)], row.lastEntry,
                  drawing.rows.interval, trailColumn(drawing), series);
    series.erase(series.begin(), series.end() - static_cast<ptrdiff_t>(known));
    return series;
}

void drawHeadings(Drawing& drawing) {
    Screen& screen = drawing.screen;
    constexpr Style kStyle = Style::kHeading;
    size_t begin = 0;
    const auto mark = [&](size_t column) {
        if (paneHasColumn(drawing.rows.table, column)) {
            screenMark(screen, drawing.line, begin, SpotKind::kHeading, column);
        }
        begin = screen.lines[drawing.line].columns;
    };
    if (drawing.hasLead) {
        screenPutRight(screen, drawing.line, kStyle, headingText(drawing, "Port", kSortPort), 6);
        mark(kSortPort);
        putTextHeading(drawing, drawing.info.hasGroups ? "Group" : "Hosts", kSortGroup, 8);
        screenPad(screen, drawing.line, kStyle, kLeadColumns);
        mark(kSortGroup);
    } else {
        screenPad(screen, drawing.line, kStyle, 1);
    }
    for (const size_t number : drawing.shown) {
        const std::string text =
            headingText(drawing, headingOf(drawing.info, number), kSortNumbers + number);
        screenPutRight(screen, drawing.line, kStyle, text, drawing.numberColumns);
        mark(kSortNumbers + number);
    }
    if (drawing.info.hasSubjects) {
        putTextHeading(drawing, "Subject", kSortSubject, screen.lines[drawing.line].columns + 2);
    }
    if (hasTrails(drawing)) {
        const char* const name = drawing.info.columns[trailColumn(drawing)].heading;
        screenPut(screen, drawing.line, kStyle, formatted("  %s/s, each to its own scale", name));
    }
    screenPad(screen, drawing.line, kStyle, screen.size.columns);
    if (drawing.info.hasSubjects) mark(kSortSubject);
    ++drawing.line;
}

// Rows.

// One style for the whole line; without, each part has its own.
struct LineStyle {
    bool isWhole;
    Style style;
};

void putNumber(Drawing& drawing, LineStyle line, size_t number, uint64_t value) {
    Style style = line.style;
    if (!line.isWhole && value == 0) style = Style::kFaint;
    if (!line.isWhole && value != 0 && drawing.info.columns[number].isTrouble) {
        style = Style::kTrouble;
    }
    screenPutRight(drawing.screen, drawing.line, style,
                   numberText(drawing, value, drawing.numberColumns - 1), drawing.numberColumns);
}

// `reliability` is its text, where the table has one.
void putNumbers(Drawing& drawing,
                LineStyle line,
                std::span<const uint64_t> values,
                const std::string& reliability) {
    for (const size_t number : drawing.shown) {
        if (number < values.size()) {
            putNumber(drawing, line, number, values[number]);
        } else {
            const Style style = line.isWhole || (reliability != "-" && reliability != "0")
                                    ? line.style
                                    : Style::kFaint;
            screenPutRight(drawing.screen, drawing.line, style, reliability, drawing.numberColumns);
        }
    }
}

void drawTotals(Drawing& drawing) {
    Screen& screen = drawing.screen;
    const size_t leftOut = drawing.rows.leftOut;
    std::string name = "Totals";
    if (leftOut != 0) name += formatted(" +%llu rows", static_cast<unsigned long long>(leftOut));
    if (drawing.hasLead) {
        screenPutIn(screen, drawing.line, Style::kStrong, "        " + name, kLeadColumns);
    } else {
        screenPad(screen, drawing.line, Style::kStrong, 1);
    }
    const std::span values(drawing.rows.totals, drawing.info.columnCount);
    putNumbers(drawing, {false, Style::kStrong}, values, "-");
    if (!drawing.hasLead) screenPut(screen, drawing.line, Style::kStrong, "  " + name);
    ++drawing.line;
}

// Several ports may serve one service.
std::string hostsText(const TopRow& row) {
    const uint32_t count = row.hostCount / 2;  // two sides each
    const std::string port = row.port != row.shownPort ? formatted("on %u ", row.port) : "";
    if (count == 0) return port + "silent";
    return port + formatted(count == 1 ? "%u host" : "%u hosts", count);
}

void putTail(Drawing& drawing, Style style, std::string_view text) {
    Screen& screen = drawing.screen;
    if (!drawing.info.hasSubjects) return;
    screenPut(screen, drawing.line, style, "  ");
    screenPutIn(screen, drawing.line, style, text,
                screen.size.columns - screen.lines[drawing.line].columns);
}

void drawRow(Drawing& drawing, uint32_t at, bool isOpen, LineStyle style) {
    const TopRow& row = drawing.rows.rows[at];
    Screen& screen = drawing.screen;
    const char* const mark = !isOpen ? " " : screen.signs.hasBlocks ? "▾" : "-";
    screenPut(screen, drawing.line, style.style, mark);
    if (drawing.hasLead) {
        char address[kAddressTextBytes];
        const std::string second = drawing.info.hasGroups
                                       ? std::string(addressText(hostOrder32(row.group), address))
                                       : hostsText(row);
        screenPutRight(screen, drawing.line, style.style, std::to_string(row.shownPort), 5);
        screenPut(screen, drawing.line, style.style, "  ");
        screenPutIn(screen, drawing.line, style.style, second, kLeadColumns - 8);
    }
    putNumbers(drawing, style, rowNumbers(drawing.rows, at), "-");
    if (hasTrails(drawing)) {
        const size_t room = screen.size.columns - screen.lines[drawing.line].columns - 2;
        screenPut(screen, drawing.line, style.style, "  ");
        screenPut(screen, drawing.line, style.style,
                  barsText(trailOf(drawing, row, room), screen.signs.hasBlocks));
    }
    if (drawing.info.hasSubjects) {
        char subject[kSafeSubjectBytes];
        putTail(drawing, style.style, subjectSafeText(rowSubject(drawing.rows, row), subject));
    }
}

const char* sideSign(const Drawing& drawing, FieldSide side) {
    if (side == FieldSide::kOnly) return " ";
    const bool isSent = side == FieldSide::kSent;
    if (drawing.screen.signs.hasBlocks) return isSent ? "→" : "←";
    return isSent ? ">" : "<";
}

void drawHost(Drawing& drawing, uint32_t at, LineStyle style) {
    const TopHost& host = drawing.rows.hosts[at];
    Screen& screen = drawing.screen;
    char address[kAddressTextBytes];
    std::string name(addressText(hostOrder32(host.address), address));
    if (host.scid != 0) name += ":" + std::to_string(host.scid);
    const std::string sign = sideSign(drawing, host.side);
    if (drawing.hasLead) {
        screenPutIn(screen, drawing.line, style.style, " " + sign + " " + name, kLeadColumns);
    } else {
        screenPut(screen, drawing.line, style.style, " ");
    }
    const std::string reliability = announcedText(host.reliability, drawing.numberColumns - 1);
    putNumbers(drawing, style, hostNumbers(drawing.rows, at), reliability);
    if (!drawing.hasLead) putTail(drawing, style.style, "  " + name);
}

void drawLine(Drawing& drawing, size_t at) {
    const PaneLine line = paneLine(drawing.pane, at);
    const bool isHost = line.host != PaneLine::kNoHost;
    LineStyle style = {false, Style::kPlain};
    if (!rowIsActive(drawing.rows, drawing.rows.rows[line.row])) style = {true, Style::kFaint};
    if (at == drawing.pane.cursor) style = {true, Style::kHere};
    if (isHost) {
        drawHost(drawing, line.host, style);
    } else {
        const bool isOpen = drawing.pane.hasOpen && drawing.pane.openAt == at;
        drawRow(drawing, line.row, isOpen, style);
    }
    if (style.style == Style::kHere) {
        screenPad(drawing.screen, drawing.line, style.style, drawing.screen.size.columns);
    }
}

std::string nothingText(const Drawing& drawing) {
    if (!topState(drawing.model).head.isThere) return "";
    if (!drawing.rows.rows.empty()) return "No row passes the filter.";
    return "Nothing in this table yet.";
}

void drawRows(Drawing& drawing) {
    const size_t end = drawing.line + viewRoom(drawing.screen.size);
    const size_t count = paneLineCount(drawing.pane);
    if (count == 0) {
        const std::string text = nothingText(drawing);
        screenPut(drawing.screen, drawing.line, Style::kFaint, "        " + text);
    }
    for (size_t at = drawing.pane.scroll; at < count && drawing.line < end; ++at) {
        drawLine(drawing, at);
        drawing.screen.spots.push_back(
            {SpotKind::kRow, at, drawing.line, 0, drawing.screen.size.columns});
        ++drawing.line;
    }
    drawing.line = end;
}

// The last minutes.

void drawBars(Drawing& drawing) {
    Screen& screen = drawing.screen;
    if (paneLineCount(drawing.pane) == 0) return;
    const TopRow& row = drawing.rows.rows[paneLine(drawing.pane, drawing.pane.cursor).row];
    const std::string name =
        formatted(" %s/s ", drawing.info.columns[trailColumn(drawing)].heading);
    constexpr size_t kTailColumns = 24;

    const size_t room =
        screen.size.columns - std::min(screen.size.columns - 1, name.size() + kTailColumns);
    const std::vector<float> there = trailOf(drawing, row, room);
    const float most = there.empty() ? 0 : std::ranges::max(there);
    const double seconds = topState(drawing.model).head.seconds;
    screenPut(screen, drawing.line, Style::kStrong, name);
    screenPut(screen, drawing.line, Style::kPlain, barsText(there, screen.signs.hasBlocks));
    screenPut(screen, drawing.line, Style::kPlain,
              "  " + spanText(static_cast<double>(there.size()) * seconds) + ", most ");
    screenPut(screen, drawing.line, Style::kStrong, rateText(most, kNumberColumns));
}

// The last line.

void drawFilter(Drawing& drawing) {
    Screen& screen = drawing.screen;
    const bool isTyped = drawing.model.mode == TopMode::kFilter;
    const std::string count =
        formatted(" %zu of %zu ", drawing.pane.order.size(), drawing.rows.rows.size());
    const size_t room = screen.size.columns - count.size();
    screenPut(screen, drawing.line, Style::kStrong, isTyped ? " /" : " Filter ");
    std::string_view text = drawing.pane.filter.text;
    // What is typed last stays in sight.
    while (screen.lines[drawing.line].columns + screenColumns(screen, text) + 1 > room) {
        do {
            text.remove_prefix(1);
        } while (!text.empty() && (static_cast<uint8_t>(text[0]) & 0xc0) == 0x80);
    }
    screenPut(screen, drawing.line, Style::kStrong, text);
    screen.hasCursor = isTyped;
    screen.cursorLine = drawing.line;
    screen.cursorColumn = screen.lines[drawing.line].columns;
    const std::string& fault = drawing.pane.filter.fault;
    if (!fault.empty()) {
        screenPut(screen, drawing.line, Style::kTrouble, "  " + fault);
    } else if (!isTyped) {
        screenPut(screen, drawing.line, Style::kFaint, "  Esc clears");
    }
    if (screen.lines[drawing.line].columns > room) return;
    screenPad(screen, drawing.line, Style::kPlain, room);
    screenPut(screen, drawing.line, Style::kPlain, count);
}

size_t hintColumns(const TopKeyRow& row) {
    return std::string_view(row.name).size() + std::string_view(row.hint).size() + 3;
}

// The highest rank of which all hints fit.
int rankThatFits(size_t columns) {
    for (int rank = 1;; ++rank) {
        size_t wanted = 0;
        bool hasFurther = false;
        for (const TopKeyRow& row : topKeyRows()) {
            if (row.hint == nullptr) continue;
            if (row.hintRank <= rank) wanted += hintColumns(row);
            hasFurther |= row.hintRank >= rank;
        }
        if (wanted > columns || !hasFurther) return rank - 1;
    }
}

void drawHints(Drawing& drawing) {
    Screen& screen = drawing.screen;
    const int rank = rankThatFits(screen.size.columns);
    for (const TopKeyRow& row : topKeyRows()) {
        if (row.hint == nullptr || row.hintRank > rank) continue;
        screenPut(screen, drawing.line, Style::kStrong, formatted(" %s", row.name));
        screenPut(screen, drawing.line, Style::kPlain, formatted(" %s ", row.hint));
    }
}

void drawLastLine(Drawing& drawing) {
    const TopModel& model = drawing.model;
    if (model.mode == TopMode::kFilter) return drawFilter(drawing);
    if (model.ranOut) {
        screenPut(drawing.screen, drawing.line, Style::kTrouble,
                  " out of memory: an interval isn't shown");
    } else if (!model.note.empty()) {
        screenPutIn(drawing.screen, drawing.line, Style::kStrong, " " + model.note,
                    drawing.screen.size.columns);
    } else if (!model.trouble.empty()) {
        screenPutIn(drawing.screen, drawing.line, Style::kTrouble, " " + model.trouble,
                    drawing.screen.size.columns);
    } else if (!drawing.pane.filter.text.empty()) {
        drawFilter(drawing);
    } else {
        drawHints(drawing);
    }
}

}  // namespace

size_t viewRoom(ScreenSize size) {
    const size_t others = isFull(size) ? 8 : 5;
    return size.lines - std::min(size.lines, others);
}

void viewDraw(const TopModel& model, ScreenSize size, Screen& screen) {
    screenClear(screen, size);
    if (size.lines == 0) return;
    if (size.columns < kViewLeast.columns || size.lines < kViewLeast.lines) {
        return screenPut(screen, 0, Style::kPlain,
                         formatted("needs %zu x %zu", kViewLeast.columns, kViewLeast.lines));
    }
    if (model.mode == TopMode::kHelp) return helpDraw(model.helpScroll, screen);
    Drawing drawing = {.model = model,
                       .rows = topRows(model),
                       .info = topTableInfo(model.table),
                       .pane = topPane(model),
                       .screen = screen};
    chooseColumns(drawing);
    drawHead(drawing);
    drawTabs(drawing);
    drawHeadings(drawing);
    if (isFull(size)) drawTotals(drawing);
    drawRows(drawing);
    drawBars(drawing);
    ++drawing.line;
    drawLastLine(drawing);
}

// Numbers

namespace {

constexpr char kUnits[] = "kMGTPE";

// Three digits, as many of them after the point as there is room for.
std::string scaled(double number) {
    size_t unit = 0;
    number /= 1000;
    while (number >= 999.5 && unit + 2 < sizeof kUnits) {
        number /= 1000;
        ++unit;
    }
    const int decimals = number < 9.995 ? 2 : number < 99.95 ? 1 : 0;
    return formatted("%.*f%c", decimals, number, kUnits[unit]);
}

std::string fitting(const std::string& exact, double number, size_t columns) {
    return exact.size() <= columns ? exact : scaled(number);
}

}  // namespace

std::string countText(uint64_t number, size_t columns) {
    return fitting(std::to_string(number), static_cast<double>(number), columns);
}

std::string rateText(double rate, size_t columns) {
    if (rate == 0) return "0";
    if (rate < 0.005) return "<0.01";
    const int decimals = rate < 0.995 ? 2 : rate < 99.95 ? 1 : 0;
    return fitting(formatted("%.*f", decimals, rate), rate, columns);
}

std::string announcedText(double number, size_t columns) {
    constexpr double kMost = 1e15;
    if (!(number >= 0 && number < kMost)) return "-";
    return fitting(formatted("%.0f", number), number, columns);
}

std::string barsText(std::span<const float> series, bool hasBlocks) {
    constexpr const char* kBlocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    constexpr const char* kLetters[] = {"_", ".", ":", "-", "=", "+", "*", "#"};
    constexpr int kHighest = 7;
    const float most = series.empty() ? 0 : std::ranges::max(series);
    std::string text;
    for (const float value : series) {
        const int height =
            value > 0
                ? std::clamp(static_cast<int>(std::ceil(value / most * kHighest)), 1, kHighest)
                : 0;
        text += (hasBlocks ? kBlocks : kLetters)[height];
    }
    return text;
}

std::string spanText(double seconds) {
    const bool isWhole = std::abs(seconds - std::round(seconds)) < 0.05;
    if (seconds < 119.5) return formatted("%.*f s", seconds < 9.95 && !isWhole ? 1 : 0, seconds);
    if (seconds < 119.5 * 60) return formatted("%.0f min", seconds / 60);
    return formatted("%.0f h", seconds / 3600);
}
