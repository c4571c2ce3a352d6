// The command line: options only. One table has the options; the parser and the usage text both
// come from it.
//
// A name counts only if it is spelled out; "-x=value" isn't known. An option with a value takes the
// next argument whatever it looks like. A repeated option overwrites, but the list options collect;
// how many are too many shows later (trace/run/settings_check.h).
//
// Numbers are read without a check: text that is no number gives 0, and a number out of range the
// nearest one that the setting can hold. Behind a minus sign the unsigned "-u" wraps around, as in
// strtoul.
//
// Ownership: settings point at the argument strings, which outlive them.

#pragma once

#include "trace/settings.h"

// Fills `traceSettings` from the arguments after the program's name. A bad command line ends the
// process by printUsage.
void parseArguments(int argc, char* const* argv);

// To the standard error stream; ends the process with status 2.
[[noreturn]] void printUsage();
