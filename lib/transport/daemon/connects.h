// The connects under way in this process, so that whoever ends a link or the library can end their
// waits: for the connection, for the daemon's answers, for a daemon that was started.
//
//     Connect connect;
//     if (connectEnter(&connect, link) != kStatusSuccess) return kStatusNoMemory;
//     if (!isEnding) ...                       // looked at only once the connect is in the list
//     if (connectWatch(&connect, socket, nullptr)) ...
//     connectLeave(&connect);
//
// An interrupt reaches each connect that has entered by then, whatever it waits for now or later.
//
// Ownership: a record belongs to the thread that connects, from enter to leave. What is watched is
// borrowed: the thread stops watching it ahead of giving its reference back.
//
// Failure: kStatusNoMemory.
//
// Threads: any. The list's lock (rank kConnects) is held while sockets and queues are interrupted,
// which waits for nothing.

#pragma once

#include <cstdint>

#include "lib/base/cond.h"
#include "lib/base/status.h"

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

// Whatever was watched is replaced; each may be null. False once the connect was interrupted: then
// the caller gives up.
[[nodiscard]] bool connectWatch(Connect* connect, Socket* socket, Ipq* ipq);
[[nodiscard]] bool connectIsInterrupted(Connect* connect);

// False when the sleep was interrupted.
[[nodiscard]] bool connectSleep(Connect* connect, double seconds);

// Of one link; null: of all.
void connectsInterrupt(const DaemonLink* link);
