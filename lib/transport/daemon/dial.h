// From a daemon's address to an inter-process queue that both sides have agreed on: the connection,
// the start of a daemon where there is none, and the handshake (handshake.h).
//
// Failure: kStatusDaemonNotConnected where no daemon is reached, where what answers isn't one, and
// for a connect that is interrupted or meets a closed library; kStatusWrongVersion,
// kStatusInitFailed for a handshake that fails, kStatusInvalidTransport for terms that can't be
// kept, kStatusNoMemory.
//
// Threads: waits on the caller's thread with no lock held, for as long as linkSeams says, until the
// connect is interrupted.

#pragma once

#include "lib/base/status.h"
#include "lib/transport/daemon/connects.h"
#include "lib/transport/daemon/specification.h"

struct DialTarget {
    DaemonAddress address;
    bool isSecure;
    bool keepsAlive;            // by the system's own probes
    const char* specification;  // for a daemon that is started
};

struct Dialed {
    Ipq* ipq;         // the caller's reference; watched by the connect
    double deadline;  // by clockSteadySeconds: when the daemon has to have answered all
};

// `mayStart`: one attempt to start a daemon. A secure connection never starts one.
[[nodiscard]] pelmoStatus dialDaemon(Dialed* out,
                                     const DialTarget& target,
                                     bool mayStart,
                                     Connect* connect);
