// Command lines by a table of options: reading, help and error texts all come from its rows.
//
//     {"-u,--interval", "SECONDS", "time between two snapshots [10]"}
//
// Each program derives a row of its own, which adds how an option is stored, and walks its words:
//
//     OptionReader reader{.rows = rows, .rest = arguments};
//     while (optionNext(reader)) {
//         if (reader.row == nullptr) ... an argument, reader.value ...
//         else ... store reader.value of *reader.row, or return optionRefuse(reader, "...") ...
//     }
//     if (!reader.fault.empty()) ... it is what is wrong, in one line that names the word ...
//
// A value is the next word, whatever it looks like, or follows "=". A name of one letter has one
// dash, and its value may follow at once: "-u5". A longer name may be typed with one dash or two.
// No name may be shortened. "--" makes arguments of all words after it; "-" is an argument. An
// option that is repeated is found each time.
//
// This isn't built on getopt_long: it accepts shortened names and can't be made not to, it keeps
// its place in variables of the process, and its error texts name no value.
//
// Ownership: rows and words are the caller's and are borrowed. Threads: start-up only.

#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct OptionRow {
    const char* names;      // separated by commas, each with its dashes
    const char* valueWord;  // null for a switch
    const char* help;
};

using OptionRows = std::vector<const OptionRow*>;

// In every program's table.
inline constexpr OptionRow kOptionHelp = {"--help", nullptr, "print this text and end"};
inline constexpr OptionRow kOptionVersion = {"--version", nullptr, "print the versions and end"};

struct OptionReader {
    const OptionRows& rows;
    std::span<char* const> rest;  // the words that are left, without the program's name
    bool optionsEnded = false;    // by "--"

    // What was found.
    const OptionRow* row = nullptr;  // null for an argument
    std::string name = {};           // as it was typed, without the value
    const char* value = nullptr;     // null for a switch; the word of an argument

    std::string fault = {};
};

// Takes an option, with its value, or an argument. False at the end, and with a fault.
[[nodiscard]] bool optionNext(OptionReader& reader);

// The fault "NAME VALUE: WHAT" of the option that was found. Returns false.
bool optionRefuse(OptionReader& reader, std::string_view what);

// The row that has the name, with either number of dashes if it is longer than a letter; or null.
[[nodiscard]] const OptionRow* optionFind(const OptionRows& rows, std::string_view name);

// Adds a table of rows of any type.
template <typename Table>
void optionRowsAdd(OptionRows& rows, const Table& table) {
    for (const OptionRow& row : table) {
        rows.push_back(&row);
    }
}

// "  NAMES VALUE    HELP": the help is the column after `width` characters.
void optionHelpAdd(std::string& out, const OptionRow& row, size_t width);

// The same of any left side.
void helpLineAdd(std::string& out, std::string left, std::string_view help, size_t width);

// "PROGRAM 0.9.0 (bus version 8.5.2)" and a line break.
[[nodiscard]] std::string versionText(std::string_view program);
