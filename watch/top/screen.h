// A screen as lines of styled text, and writing on it by columns. What is a column is the
// terminal's matter: a character may take two, and one that combines with the one before takes
// none.
//
// Texts are UTF-8 without control characters (watch/core/text.h). Terminals whose character set
// isn't UTF-8 get printable ASCII only; other characters are written as their bytes, "\xHH".
//
// The widths of characters are those of wcwidth(3): LC_CTYPE has to be set.
//
// Ownership: a screen owns its text.
//
// Threads: no lock; the owner serialises.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class Style : uint8_t {
    kPlain,
    kStrong,
    kFaint,
    kHeading,
    kHere,  // the line under the cursor, the table that is looked at
    kTrouble,
};

struct StyledPiece {
    Style style;
    size_t bytes;  // of the line's text
};

struct ScreenLine {
    std::string text;  // never wider than the screen
    std::vector<StyledPiece> pieces;
    size_t columns = 0;
};

// What the terminal can show.
struct ScreenSigns {
    bool isUtf8 = true;
    bool hasBlocks = true;  // bars of eight heights, arrows
};

struct ScreenSize {
    size_t columns, lines;
};

struct ScreenPlace {
    size_t column, line;
};

// What a part of a line means, so that it can be clicked. Numbers are its own kind's.
enum class SpotKind : uint8_t { kTable, kHeading, kRow };

struct ScreenSpot {
    SpotKind kind;
    size_t number;
    size_t line;
    size_t begin, end;  // columns
};

struct Screen {
    ScreenSize size;
    ScreenSigns signs;
    std::vector<ScreenLine> lines;
    std::vector<ScreenSpot> spots;

    // Where the terminal's cursor is; it isn't shown without.
    bool hasCursor = false;
    size_t cursorColumn = 0, cursorLine = 0;
};

void screenClear(Screen& screen, ScreenSize size);

// Of the line from a column to its present end.
void screenMark(Screen& screen, size_t line, size_t begin, SpotKind kind, size_t number);

// Null where there is nothing to click.
[[nodiscard]] const ScreenSpot* screenSpotAt(const Screen& screen, ScreenPlace place);

// Columns that the text takes on the screen.
[[nodiscard]] size_t screenColumns(const Screen& screen, std::string_view text);

// Appends to the line, cut at the screen's edge.
void screenPut(Screen& screen, size_t line, Style style, std::string_view text);

// Appends the text within so many columns: cut, with a sign that it was, or filled up with blanks.
void screenPutIn(Screen& screen, size_t line, Style style, std::string_view text, size_t columns);

// The same with the blanks ahead.
void screenPutRight(
    Screen& screen, size_t line, Style style, std::string_view text, size_t columns);

// Appends blanks up to the column.
void screenPad(Screen& screen, size_t line, Style style, size_t column);
