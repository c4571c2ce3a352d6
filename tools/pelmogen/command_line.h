// The command line: a table of rows in the source; "--help" prints that table.

#pragma once

#include <span>
#include <string>

#include "tools/pelmogen/options.h"

enum class ParseResult { kRun, kHelp, kVersion, kWrong };

// `arguments` are those after the program's name; texts of the options are borrowed from them.
// `error` is set with kWrong.
[[nodiscard]] ParseResult optionsParse(std::span<char* const> arguments,
                                       GeneratorOptions& options,
                                       std::string& error);

[[nodiscard]] std::string optionsHelp();
