#include "watch/top/screen.h"

#include <wchar.h>

#include <algorithm>

#include "programs/text.h"

namespace {

// Further marks on one character say nothing, and some terminals draw them all over the screen.
constexpr int kMostMarks = 2;

// One character as the screen shows it.
struct Cell {
    std::string_view source;  // its bytes in the text
    char escaped[17];         // in their place, unless empty
    size_t columns;

    [[nodiscard]] std::string_view shown() const { return *escaped != '\0' ? escaped : source; }
};

void escape(Cell& cell) {
    char* at = cell.escaped;
    for (const char byte : cell.source) {
        const auto value = static_cast<uint8_t>(byte);
        *at++ = '\\';
        *at++ = 'x';
        *at++ = kHexDigits[value >> 4];
        *at++ = kHexDigits[value & 0xf];
    }
    *at = '\0';
    cell.columns = 4 * cell.source.size();
}

// `marks` counts those on the character before; none may be without a character.
Cell cellAt(const ScreenSigns& signs, std::string_view text, int& marks) {
    uint32_t character = 0;
    const size_t bytes = utf8Read(text, character);
    Cell cell = {.source = text.substr(0, std::max<size_t>(bytes, 1)), .escaped = {}, .columns = 1};
    if (character >= ' ' && character < 0x7f) {
        marks = 0;
        return cell;
    }
    const int width = signs.isUtf8 && bytes != 0 ? wcwidth(static_cast<wchar_t>(character)) : -1;
    if (width > 0) {
        marks = 0;
        cell.columns = static_cast<size_t>(width);
    } else if (width == 0 && character != 0 && marks < kMostMarks) {
        ++marks;
        cell.columns = 0;
    } else {
        marks = kMostMarks;
        escape(cell);
    }
    return cell;
}

void append(ScreenLine& line, Style style, std::string_view text, size_t columns) {
    if (text.empty()) return;
    line.text += text;
    line.columns += columns;
    if (!line.pieces.empty() && line.pieces.back().style == style) {
        line.pieces.back().bytes += text.size();
    } else {
        line.pieces.push_back({style, text.size()});
    }
}

void appendBlanks(ScreenLine& line, Style style, size_t count) {
    append(line, style, std::string(count, ' '), count);
}

// Appends what of the text fits into so many columns.
void appendFitting(
    Screen& screen, size_t line, Style style, std::string_view text, size_t columns) {
    int marks = kMostMarks;
    for (size_t used = 0; !text.empty();) {
        const Cell cell = cellAt(screen.signs, text, marks);
        used += cell.columns;
        if (used > columns) return;
        append(screen.lines[line], style, cell.shown(), cell.columns);
        text.remove_prefix(cell.source.size());
    }
}

size_t roomIn(const Screen& screen, size_t line) {
    return screen.size.columns - std::min(screen.size.columns, screen.lines[line].columns);
}

}  // namespace

void screenClear(Screen& screen, ScreenSize size) {
    screen.size = size;
    screen.lines.resize(size.lines);
    for (ScreenLine& line : screen.lines) {
        line.text.clear();
        line.pieces.clear();
        line.columns = 0;
    }
    screen.spots.clear();
    screen.hasCursor = false;
}

void screenMark(Screen& screen, size_t line, size_t begin, SpotKind kind, size_t number) {
    screen.spots.push_back({kind, number, line, begin, screen.lines[line].columns});
}

const ScreenSpot* screenSpotAt(const Screen& screen, ScreenPlace place) {
    const auto found = std::ranges::find_if(screen.spots, [place](const ScreenSpot& spot) {
        return spot.line == place.line && spot.begin <= place.column && place.column < spot.end;
    });
    return found != screen.spots.end() ? &*found : nullptr;
}

size_t screenColumns(const Screen& screen, std::string_view text) {
    int marks = kMostMarks;
    size_t columns = 0;
    while (!text.empty()) {
        const Cell cell = cellAt(screen.signs, text, marks);
        columns += cell.columns;
        text.remove_prefix(cell.source.size());
    }
    return columns;
}

void screenPut(Screen& screen, size_t line, Style style, std::string_view text) {
    appendFitting(screen, line, style, text, roomIn(screen, line));
}

void screenPutIn(Screen& screen, size_t line, Style style, std::string_view text, size_t columns) {
    columns = std::min(columns, roomIn(screen, line));
    if (columns == 0) return;
    const size_t end = screen.lines[line].columns + columns;
    if (screenColumns(screen, text) <= columns) {
        appendFitting(screen, line, style, text, columns);
    } else {
        appendFitting(screen, line, style, text, columns - 1);
        append(screen.lines[line], style, screen.signs.isUtf8 ? "…" : "~", 1);
    }
    screenPad(screen, line, style, end);
}

void screenPutRight(
    Screen& screen, size_t line, Style style, std::string_view text, size_t columns) {
    const size_t wanted = screenColumns(screen, text);
    if (wanted < columns) {
        screenPad(screen, line, style, screen.lines[line].columns + columns - wanted);
    }
    screenPutIn(screen, line, style, text, std::min(wanted, columns));
}

void screenPad(Screen& screen, size_t line, Style style, size_t column) {
    ScreenLine& written = screen.lines[line];
    column = std::min(column, screen.size.columns);
    if (written.columns < column) appendBlanks(written, style, column - written.columns);
}
