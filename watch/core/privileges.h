// The rights of the process. Opening a live source takes two capabilities, CAP_NET_RAW and
// CAP_NET_ADMIN; reading it takes none.
//
// Failure: kStatusNotPermitted where rights remain that must go; the log says which.
//
// Threads: before all threads but the main one: capabilities and filters belong to threads.

#pragma once

#include "lib/base/status.h"

// Gives up all capabilities but those two. Root also keeps, until privilegesDrop, those that it
// takes to become another user.
[[nodiscard]] pelmoStatus privilegesForCapture();

// Gives up all that is left, for good: capabilities, the identity of a program that runs as another
// user, and whatever another program could bring.
//
// Root becomes the user who called sudo, or "nobody", in no further group. From then on the kernel
// also refuses it, where it knows such filters, to start programs, to open a file for writing, to
// open a packet socket, and to reach other processes. So whatever the program writes to has to be
// open before. The root of a user namespace in which that user doesn't exist keeps its id: outside
// it is an ordinary user already.
[[nodiscard]] pelmoStatus privilegesDrop();
