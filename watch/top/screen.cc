#include "watch/top/screen.h"

#include <wchar.h>

#include <algorithm>

namespace {

// Further marks on one character say nothing, and some terminals draw them all over the screen.
constexpr int kMostMarks = 2;

// The first character of UTF-8 text: its bytes, and what they are called.
struct Character {
    size_t bytes;
    wchar_t code;
};

Character characterAt(std::string_view text) {
    const auto lead = static_cast<uint8_t>(text[0]);
    size_t bytes = lead < 0x80 ? 1 : lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    bytes = std::min(bytes, text.size());
    uint32_t code = bytes == 1 ? lead : lead & (0xffU >> (bytes + 1));
    for (size_t at = 1; at < bytes; ++at) {
        code = code << 6 | (static_cast<uint8_t>(text[at]) & 0x3fU);
    }
    return {bytes, static_cast<wchar_t>(code)};
}

// One character as the screen shows it.
struct Cell {
    std::string_view source;  // its bytes in the text
    char escaped[17];         // in their place, unless empty
    size_t columns;

    [[nodiscard]] std::string_view shown() const { return *escaped != '\0' ? escaped : source; }
};

void escape(Cell& cell) {
    constexpr char kHex[] = "0123456789abcdef";
    char* at = cell.escaped;
    for (const char byte : cell.source) {
        const auto value = static_cast<uint8_t>(byte);
        *at++ = '\\';
        *at++ = 'x';
        *at++ = kHex[value >> 4];
        *at++ = kHex[value & 0xf];
    }
    *at = '\0';
    cell.columns = 4 * cell.source.size();
}

// `marks` counts those that stand on the character before; none may stand alone.
Cell cellAt(const ScreenSigns& signs, std::string_view text, int& marks) {
    const Character character = characterAt(text);
    Cell cell = {.source = text.substr(0, character.bytes), .escaped = {}, .columns = 1};
    if (character.code >= ' ' && character.code < 0x7f) {
        marks = 0;
        return cell;
    }
    const int width = signs.isUtf8 ? wcwidth(character.code) : -1;
    if (width > 0) {
        marks = 0;
        cell.columns = static_cast<size_t>(width);
    } else if (width == 0 && character.code != 0 && marks < kMostMarks) {
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
    screen.hasCursor = false;
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
