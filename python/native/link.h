// A transport of a Python program: connecting, sending, closing.
//
// Ownership: the transport lives until the close or the end of the object.
//
// Threads: with the interpreter's lock. Sending keeps it, since it doesn't wait: where senders
// would have to wait for the daemon, the message is handed back to be sent by a thread that may.
// Calls that wait release it.

#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "python/native/intake.h"
#include "python/native/message.h"

struct Link {
    uint32_t transport = kNoId;
    bool isNetwork = true;
    bool isDirect = false;  // may wait for a peer
    bool isClosed = false;
    uint64_t bytesSinceLook = 0;
    uint32_t sendsSinceRest = 0;
    pelmoMsg* scratch = nullptr;

    Link() = default;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link();
};

void linkDefine(py::module_& module);
