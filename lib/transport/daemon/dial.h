// From a daemon's address to an inter-process queue that both sides have agreed on: the connection,
// the start of a daemon if none listens, and the handshake (handshake.h).
//
//     Connect connect;
//     if (connectEnter(&connect, link) != kStatusSuccess) return kStatusNoMemory;
//     if (!isEnding) ...                       // checked only after the connect has entered
//     status = dialDaemon(&dialed, target, mayStart, &connect);
//     connectLeave(&connect);
//
// The connects under way in this process are in one list, so that the end of a link or of the
// library can end their waits: for the connection, for the daemon's answers, for a daemon that was
// started. An interrupt reaches each connect that has entered by then, whatever it waits for now or
// later.
//
// Ownership: a record belongs to the thread that connects, from enter to leave. What is watched is
// borrowed: the thread stops watching it before it gives its reference back.
//
// Failure: kStatusDaemonNotConnected if no daemon is reached, if what answers isn't one, and if the
// connect is interrupted or the library is closed; kStatusWrongVersion, kStatusInitFailed for a
// handshake that fails, kStatusInvalidTransport for terms that can't be kept, kStatusNoMemory.
//
// Threads: any. dialDaemon waits on the caller's thread with no lock held, until a time limit of
// linkEnvironment or an interrupt. The list's lock (rank kConnects) is held while sockets and
// queues are interrupted, which waits for nothing.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/base/status.h"
#include "lib/transport/daemon/specification.h"

struct DaemonLink;
struct Ipq;
struct Socket;

struct Connect {
    // Constant while it is in the list.
    const DaemonLink* link = nullptr;
    Cond wake = {};

    // Guarded by the list's lock.
    Connect* next = nullptr;
    Connect** place = nullptr;  // the pointer that leads here
    bool isInterrupted = false;
    Socket* socket = nullptr;
    Ipq* ipq = nullptr;
};

// A record enters once.
[[nodiscard]] pelmoStatus connectEnter(Connect* connect, const DaemonLink* link);
void connectLeave(Connect* connect);

// Replaces what was watched; each may be null. False once the connect was interrupted: then the
// caller gives up.
[[nodiscard]] bool connectWatch(Connect* connect, Socket* socket, Ipq* ipq);
[[nodiscard]] bool connectIsInterrupted(Connect* connect);

// False when the sleep was interrupted.
[[nodiscard]] bool connectSleep(Connect* connect, double seconds);

// Of one link; null: of all.
void connectsInterrupt(const DaemonLink* link);

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
