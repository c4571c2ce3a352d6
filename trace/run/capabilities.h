// The capabilities of the process (capabilities(7)). Capture takes two, CAP_NET_RAW and
// CAP_NET_ADMIN; a file takes none.
//
// Failure: kStatusNotPermitted, and a line in the log; the system never refuses to give up
// rights.
//
// Threads: before all threads but the main one: capabilities belong to threads.

#pragma once

#include <linux/capability.h>

#include <cstdint>

#include "lib/base/status.h"

inline constexpr uint32_t kCapabilitiesOfCapture = 1u << CAP_NET_RAW | 1u << CAP_NET_ADMIN;

// Gives up, for good, those that aren't in `kept`, a set of bits of which the process may have
// none. All of `kept` are below 32.
[[nodiscard]] pelmoStatus capabilitiesKeep(uint32_t kept);

// What pelmoscope keeps once everything is open: the two of capture in a live run, and
// CAP_DAC_OVERRIDE where a rotation will open files again, in folders that may be another user's.
[[nodiscard]] pelmoStatus capabilitiesKeepOfTool();
