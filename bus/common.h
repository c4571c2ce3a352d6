// What the program says on the standard error stream, a line at a time.
//
// Threads: any.

#pragma once

#include <string>
#include <string_view>

#include "lib/pelmo.h"
#include "programs/owned_message.h"

// Adds the text with its control characters escaped: "\n", "\x1b".
void plainTextAdd(std::string& out, std::string_view text);

// "pelmobus: WHAT: STATUS TEXT (STATUS)"
void complain(const std::string& what, pelmoStatus status);

// "pelmobus: WHAT"
void complain(const std::string& what);

// The line alone. Control characters in it are escaped, so that it plays no tricks on a terminal.
void announce(const std::string& line);
