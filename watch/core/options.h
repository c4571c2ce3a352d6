// The command line: a form's name, then options of the source and of the form, in any order.
//
// Threads: start-up only.

#pragma once

#include <span>
#include <string_view>

#include "watch/core/form.h"

// In log lines and in error texts of the command line.
inline constexpr const char* kWatchName = "pelmowatch";

// Reads the command line into the settings and the form's own, and returns the form. Ends the
// process with 0 after printing a help text or the version, and with 2 after an error, which is
// printed in one line that names the wrong word.
[[nodiscard]] const Form& optionsParse(int argc,
                                       char* const* argv,
                                       std::span<const Form* const> forms);

// Was --strict given?
[[nodiscard]] bool optionsAreStrict();

// Ends the process with 2 after printing "pelmowatch: WORD: WHAT", for a word of the command line
// that is found wrong later, before any thread is started.
[[noreturn]] void optionsRefuse(std::string_view word, std::string_view what);
