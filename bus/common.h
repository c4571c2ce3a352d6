// What the program says on the standard error stream, a line at a time.
//
// Threads: any.

#pragma once

#include <string>

#include "lib/pelmo.h"
#include "programs/owned_message.h"

// "pelmobus: WHAT: STATUS TEXT (STATUS)"
void complain(const std::string& what, pelmoStatus status);

// "pelmobus: WHAT"
void complain(const std::string& what);

// The line alone.
void announce(const std::string& line);
