// Settings that would do harm are refused: a filter that libpcap could hardly compile, and files of
// which one would overwrite another.
//
// Failure: kStatusInvalidArgument, with the reason in the log.
//
// Threads: start-up only, ahead of the log's opening; the texts go to the standard error stream.

#pragma once

#include "lib/base/status.h"

// Explicit or built from the lists.
[[nodiscard]] pelmoStatus validateFilter();

// What "-r", "-w" and "-logfile" name: not one file, also not through links, nor a numbered file of
// another's rotation. Behind the rotation settings, which tell the numbers.
[[nodiscard]] pelmoStatus validateFiles();

// Do the paths lead to one regular file, also through links, or to one that doesn't exist yet? No
// where either can't be looked up: opening it fails and says why.
[[nodiscard]] bool filesAreOne(const char* path, const char* other);
