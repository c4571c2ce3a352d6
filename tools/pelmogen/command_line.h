// The command line: a table of rows in the source; "--help" prints that table.

#pragma once

#include <string>

#include "tools/pelmogen/options.h"

enum class ParseResult { kRun, kHelp, kWrong };

// `error` is set with kWrong. The texts of the options point to the arguments.
[[nodiscard]] ParseResult optionsParse(int argc,
                                       char* const* argv,
                                       GeneratorOptions& options,
                                       std::string& error);

[[nodiscard]] std::string optionsHelp();
