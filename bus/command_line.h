// From the arguments to settings and a command, by one table of options and the table of commands.
//
// Options of the connection come before the command, a command's own anywhere after it. --help and
// --version work in both places. An option that is given again replaces its value.

#pragma once

#include <span>
#include <string>

#include "bus/commands.h"
#include "bus/settings.h"

struct CommandLine {
    BusSettings settings;
    const Command* command = nullptr;  // null if there is nothing to run

    // Then one of these: what is wrong, in one line that names the word; or what was asked for.
    std::string fault;
    std::string answer;
};

// `arguments` are those after the program's name. They have to last as long as the settings.
[[nodiscard]] CommandLine commandLineRead(std::span<char* const> arguments);
