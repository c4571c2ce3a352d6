// Layer codes: what every call on a socket returns, and the status that each one means.
//
// Threads: any; nothing here changes.

#pragma once

#include <cstdint>

#include "lib/base/status.h"

enum SocketCode : uint32_t {
    kSocketDone = 0,
    kSocketWrongState = 1,
    kSocketWouldBlock = 2,  // or a connect that is under way
    kSocketDisconnected = 3,
    kSocketOtherError = 4,
    kSocketNoBuffers = 5,  // the system's, or our own memory
    kSocketTooMany = 6,    // the process has no descriptor left
    kSocketNetworkDown = 7,
    kSocketRefused = 8,
};

// Of an errno.
[[nodiscard]] SocketCode socketCodeFromErrno(int error);

// kStatusInvalidArgument for kSocketWrongState, kStatusNoMemory for kSocketNoBuffers,
// kStatusSocketLimit for kSocketTooMany, kStatusOsError for kSocketRefused, kStatusIoFailed for all
// other failures.
[[nodiscard]] pelmoStatus socketStatus(SocketCode code);
