// The rights of the process. Opening a live source takes two capabilities, CAP_NET_RAW and
// CAP_NET_ADMIN; reading it takes none.
//
// Failure: kStatusNotPermitted where rights stay that shall go, which the log tells.
//
// Threads: ahead of all threads but the main one: capabilities belong to threads.

#pragma once

#include "lib/base/status.h"

// Gives up all capabilities but those two.
[[nodiscard]] pelmoStatus privilegesForCapture();

// Gives up all that is left, for good: capabilities, also those of root, the identity of a program
// that runs as another user, and whatever another program could bring.
[[nodiscard]] pelmoStatus privilegesDrop();
