#include "programs/option_table.h"

#include <gtest/gtest.h>

namespace {

constexpr OptionRow kRows[] = {
    {"-u,--interval", "SECONDS", "between two [10]"},
    {"-addr,--addr", "ADDRESS", "only it"},
    {"--all", nullptr, "of them"},
};

// What was found, and then what is wrong: "NAME VALUE|NAME VALUE|FAULT".
std::string readWords(std::vector<const char*> words) {
    OptionRows rows = {&kOptionHelp};
    optionRowsAdd(rows, kRows);
    OptionReader reader{.rows = rows,
                        .rest = {const_cast<char* const*>(words.data()), words.size()}};
    std::string found;
    while (optionNext(reader)) {
        found += reader.row != nullptr ? reader.row->names : "argument";
        found += reader.value != nullptr ? std::string(" ") + reader.value : "";
        found += "|";
        if (std::string(found).ends_with(" bad|")) optionRefuse(reader, "no number");
    }
    return found + reader.fault;
}

TEST(OptionTable, FindsOptionsWithTheirValuesAndArguments) {
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{}, ""},
        {{"-u", "5", "--interval=6", "-u7", "-u=8"},
         "-u,--interval 5|-u,--interval 6|-u,--interval 7|-u,--interval 8|"},
        {{"-addr", "-u", "--addr="}, "-addr,--addr -u|-addr,--addr |"},
        {{"x", "-all", "-", "--all"}, "argument x|--all|argument -|--all|"},
        {{"--all", "--", "--all", "--"}, "--all|argument --all|argument --|"},
        {{"--addr", "--", "--"}, "-addr,--addr --|"},
        {{"", "--help"}, "argument |--help|"},
        {{"--al"}, "--al: no such option"},
        {{"--u", "5"}, "--u: no such option"},
        {{"-a"}, "-a: no such option"},
        {{"-x=1", "-u", "5"}, "-x=1: no such option"},
        {{"--=", "x"}, "--=: no such option"},
        {{"-all=1"}, "-all=1: takes no value"},
        {{"x", "-addr"}, "argument x|-addr: needs a value: ADDRESS"},
        {{"--interval=bad", "x"}, "-u,--interval bad|--interval bad: no number"},
        {{"-ubad"}, "-u,--interval bad|-u bad: no number"},
    };
    for (const auto& [words, found] : cases)
        EXPECT_EQ(readWords(words), found);
}

TEST(OptionTable, HelpIsAColumnThatLongNamesPush) {
    std::string text;
    for (const OptionRow& row : kRows)
        optionHelpAdd(text, row, 14);
    EXPECT_EQ(text,
              "  -u, --interval SECONDS between two [10]\n"
              "  -addr, --addr ADDRESS only it\n"
              "  --all          of them\n");
}

}  // namespace
