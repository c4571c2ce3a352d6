// The command line: a form's name, then options of the source and of the form, in any order.
//
// Threads: start-up only.

#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "watch/capture/capture_time.h"
#include "watch/core/form.h"

// In log lines and in error texts of the command line.
inline constexpr const char* kWatchName = "pelmowatch";

// Reads the command line into the settings and the form's own, and returns the form. Ends the
// process with 0 after printing a help text or the version, and with 2 after an error, which is
// printed in one line that names the wrong word.
[[nodiscard]] const Form& optionsParse(int argc,
                                       char* const* argv,
                                       std::span<const Form* const> forms);

// For forms with times of their own: null, or what is wrong with the value.
[[nodiscard]] const char* optionsStoreTime(const char* value, std::optional<CaptureTime>* out);

// What several files are called together: "a.pcap and 3 more".
[[nodiscard]] std::string optionsNameOf(const std::vector<std::string>& files);

// Was --strict given?
[[nodiscard]] bool optionsAreStrict();

// Ends the process with 2 after printing "pelmowatch: WORD: WHAT", for a word of the command line
// that is found wrong later, before any thread is started.
[[noreturn]] void optionsRefuse(std::string_view word, std::string_view what);
