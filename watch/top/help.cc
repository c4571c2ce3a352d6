#include "watch/top/help.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "watch/top/keys.h"

namespace {

constexpr size_t kTextAt = 14;  // after the names of keys

struct HelpLine {
    std::string name;  // of keys
    std::string text;
    Style style;
};

const char* titleOf(TopKeyGroup group) {
    switch (group) {
        case TopKeyGroup::kMove:
            return "Where";
        case TopKeyGroup::kShow:
            return "What";
        case TopKeyGroup::kSort:
            return "Order";
        case TopKeyGroup::kTime:
            return "Time";
        case TopKeyGroup::kProgram:
            return "Program";
    }
    return "";
}

constexpr const char* kRemarks[] = {
    "Below an open row a host stands as address:scid. What goes between two hosts counts on both "
    "sides: received first, sent below.",
    "A row that falls silent stays, faint, for ten minutes.",
    "The bars show the last minutes of the row under the cursor: its numbers in the column that "
    "sorts.",
};

// Adds the text, which is ASCII, in lines of so many columns.
void addText(std::vector<HelpLine>& lines,
             std::string name,
             std::string_view text,
             size_t columns) {
    while (text.size() > columns) {
        const size_t blank = text.rfind(' ', columns);
        if (blank == std::string_view::npos) break;
        lines.push_back(
            {std::exchange(name, ""), std::string(text.substr(0, blank)), Style::kPlain});
        text.remove_prefix(blank + 1);
    }
    lines.push_back({std::move(name), std::string(text), Style::kPlain});
}

std::vector<HelpLine> helpLines(size_t columns) {
    std::vector<HelpLine> lines;
    const TopKeyRow* before = nullptr;
    for (const TopKeyRow& row : topKeyRows()) {
        if (row.help == nullptr) continue;
        if (before == nullptr || before->group != row.group) {
            if (before != nullptr) lines.push_back({"", "", Style::kPlain});
            lines.push_back({"", titleOf(row.group), Style::kStrong});
        }
        addText(lines, row.name, row.help, columns);
        before = &row;
    }
    for (const char* remark : kRemarks) {
        lines.push_back({"", "", Style::kPlain});
        addText(lines, "", remark, columns);
    }
    return lines;
}

}  // namespace

void helpDraw(size_t scroll, Screen& screen) {
    constexpr size_t kMostTextColumns = 64;
    const size_t textColumns = screen.size.columns - std::min(screen.size.columns, kTextAt + 1);
    const std::vector<HelpLine> lines = helpLines(std::min(textColumns, kMostTextColumns));
    const size_t room = screen.size.lines - 1;
    const size_t hidden = lines.size() - std::min(lines.size(), room);
    const size_t first = std::min(scroll, hidden);
    for (size_t at = 0; at < std::min(room, lines.size()); ++at) {
        const HelpLine& line = lines[first + at];
        screenPut(screen, at, Style::kStrong, "  " + line.name);
        if (line.style == Style::kPlain) screenPad(screen, at, Style::kPlain, kTextAt);
        screenPut(screen, at, line.style, line.text);
    }
    screenPut(screen, room, Style::kFaint,
              hidden > 0 ? " Up Down scroll, any other key goes back" : " any key goes back");
}
