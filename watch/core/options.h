// The command line: a form's name, then options of the source and of the form.
//
// Threads: start-up only.

#pragma once

#include <span>

#include "watch/core/form.h"

// Reads the command line into the settings and the form's own, and returns the form. Help and
// version are printed and end the process with 0; what is wrong is told in one line, with the word
// that is wrong, and ends it with 2.
[[nodiscard]] const Form& optionsParse(int argc,
                                       char* const* argv,
                                       std::span<const Form* const> forms);

// Was --strict given?
[[nodiscard]] bool optionsAreStrict();

// Ends the process for a word of the command line that proves wrong later, ahead of all threads.
[[noreturn]] void optionsRefuse(const char* word, const char* what);
