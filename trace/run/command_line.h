// The command line: options only. One table has the options; the parser and the usage text both
// come from it.
//
// A name counts only if it is spelled out; "-x=value" isn't known. An option with a value takes the
// next argument whatever it looks like. A repeated option overwrites, but the list options collect,
// without a limit.
//
// Numbers are read without a check: text that is no number gives 0, one out of range the nearest
// that the setting can hold. Behind a minus sign the unsigned "-u" wraps around, as in strtoul.
//
// Ownership: settings point at the argument strings, which outlive them.

#pragma once

#include <span>

#include "trace/settings.h"

// Fills `traceSettings` from the arguments behind the program's name. A bad command line ends the
// process by printUsage.
void parseArguments(int argc, char* const* argv);

// The same for any settings. False for a bad command line; what stood ahead of the fault is set.
// `settings` stays in its place afterwards: its filter text may point into itself.
[[nodiscard]] bool readArguments(std::span<char* const> arguments, TraceSettings& settings);

// To the standard error stream; ends the process with status 2.
[[noreturn]] void printUsage();
