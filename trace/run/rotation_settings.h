// Turns the rotation options into a limit in bytes and a count of numbered files, once for the log
// and once for the capture file.
//
// Preferred options give the size of one file and the count. The deprecated option gives a size
// that ten files share. Sizes out of range are corrected, and the correction is told.
//
// Failure: kStatusInvalidArgument, with the reason in the log. Limit and count are then not stored.
//
// Threads: start-up only, ahead of the log's opening; the texts go to the standard error stream.

#pragma once

#include "lib/base/status.h"

// Settles `logLimitBytes` and `logMaxRotations`.
[[nodiscard]] pelmoStatus validateLogRotation();

// Settles `captureLimitBytes` and `captureMaxRotations`.
[[nodiscard]] pelmoStatus validateCaptureRotation();
