// Makes the settings sound before a run: refuses a filter that libpcap could hardly compile and
// files of which one would overwrite another, and turns the rotation options into a limit in bytes
// and a count of numbered files, once for the log and once for the capture file.
//
// Preferred rotation options give the size of one file and the count; the deprecated option gives a
// size that ten files share. Sizes out of range are corrected, and the correction is logged.
//
// Failure: kStatusInvalidArgument, with the reason in the log. Limit and count are then not stored.
//
// Threads: start-up only, before the log is opened: the texts go to the standard error stream.

#pragma once

#include "lib/base/status.h"

// Sets `logLimitBytes` and `logMaxRotations`.
[[nodiscard]] pelmoStatus validateLogRotation();

// Sets `captureLimitBytes` and `captureMaxRotations`.
[[nodiscard]] pelmoStatus validateCaptureRotation();

// The explicit filter, or the one built from the lists.
[[nodiscard]] pelmoStatus validateFilter();

// The files of "-r", "-w" and "-logfile": no two may be the same file, also not through links, and
// none a numbered file of another's rotation. Runs after the rotation settings, whose counts it
// uses.
[[nodiscard]] pelmoStatus validateFiles();

// True if the paths lead to one regular file, also through links, or to one that doesn't exist yet.
// False if either can't be looked up: opening it fails and says why.
[[nodiscard]] bool filesAreOne(const char* path, const char* other);
